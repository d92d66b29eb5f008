// Owns which manifest is in force for each protected path. It must not hold, restore or report
// anything: its callers decide. Any thread.
#include "baseline/RuleBaselines.h"

#include <baseline/ManifestBuilder.h>
#include <baseline/TreeVerifier.h>
#include <sdk/files/PathUtils.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <thread>

#include "base/PathText.h"
#include "rsync/RsyncExclusions.h"

namespace Engine {

namespace {

constexpr const char* kBackupIsGone =
    "the backup copies are gone; is the file system of the backup path mounted?";

constexpr const char* kNotApproved =
    "its present state was never approved; accept it, or apply the policy";

/// Of copies that are being made: those of an earlier state may be lost.
constexpr const char* kNoBackupId = "";

using Anchor = std::unique_ptr<SDK::PathAnchor>;

/// The copies of a rule as a tree of their own.
struct CopyTree {
    Anchor anchor;
    Baseline::TreeRoot root;
};

CopyTree CopiesOf(const AnchoredRule& rule) {
    CopyTree tree;
    const bool is_file = rule.IsFile();
    const std::string directory = is_file ? ParentPath(rule.RootPath()) : rule.RootPath();
    SDK::FileDescriptor opened = rule.OpenCopyDirectory(directory);
    if (!opened.IsOpen()) return tree;
    tree.anchor = SDK::PathAnchor::Hold(std::move(opened), directory);
    tree.root = {tree.anchor.get(), is_file ? FileName(rule.RootPath()) : std::string()};
    return tree;
}

std::string Relative(const AnchoredRule& rule, const std::string& path) {
    std::string_view below;
    if (!rule.Below(path, below)) return "";
    return SDK::PathUtils::WithoutTrailingSlash(std::string(below));
}

std::string Words(const Baseline::Difference& difference) {
    switch (difference.kind) {
        case Baseline::Difference::Kind::kAdded:
            return "it was not approved";
        case Baseline::Difference::Kind::kMissing:
            return "it is missing";
        default:
            return "its " + difference.detail + " differs";
    }
}

}  // namespace

Baseline::TreeRoot LiveTree(const AnchoredRule& rule) {
    if (rule.IsFile()) return {rule.Parent().get(), FileName(rule.RootPath())};
    return {rule.Root().get(), ""};
}

std::string PathIn(const AnchoredRule& rule, const std::string& below) {
    const std::string& root = rule.RootPath();
    return below.empty() ? root : (root == "/" ? root : root + "/") + below;
}

void RuleBaselines::Reset(const std::string& directory, std::size_t kept) {
    const std::lock_guard<std::mutex> lock(mutex_);
    directory_ = directory;
    kept_ = kept;
    states_.clear();
}

Baseline::BaselineStore RuleBaselines::Store() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Baseline::BaselineStore(directory_);
}

RuleBaselines::Adopted RuleBaselines::Adopt(const SentrelDirRule& rule) {
    const Baseline::BaselineStore store = Store();
    Adopted adopted;
    Known manifest;
    unsigned int generation = 0;
    const bool is_copying = store.IsCopying(rule.real_path, rule.backup_path);
    if (!is_copying && store.Numbers(rule.real_path, rule.backup_path).empty()) {
        // A link of the policy may have been switched while the agent was away.
        if (store.HasAny()) adopted = {Adoption::kUnapproved, kNotApproved};
    } else if (!is_copying) {
        Baseline::Generation newest = store.Newest(rule.real_path, rule.backup_path);
        if (!newest) {
            adopted = {Adoption::kUnusable, newest.problem};
        } else if (!HasBackup(rule)) {
            adopted = {Adoption::kLost, kBackupIsGone};
        } else {
            adopted = {Adoption::kAdopted};
            manifest = std::move(newest.manifest);
            generation = newest.number;
        }
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    State& state = states_[KeyOf(rule)];
    state.in_force = std::move(manifest);
    state.generation = generation;
    state.obstacle = adopted.problem;
    state.approval.clear();
    state.key.reset();
    if (is_copying) state.backup_id = kNoBackupId;
    return adopted;
}

std::string RuleBaselines::Obstacle(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = states_.find(KeyOf(rule));
    return known == states_.end() ? "" : known->second.obstacle;
}

bool RuleBaselines::IsBackupBack(const SentrelDirRule& rule) const {
    return Obstacle(rule) == kBackupIsGone && HasBackup(rule);
}

std::string RuleBaselines::Lend(const std::string& pem) {
    LentKey::Key key = SDK::SigningKey::Read(pem);
    if (key == nullptr || !key->CanSign()) return "it is no private Ed25519 key";
    std::string problem = Store().WhyUnsigned(key.get());
    if (problem.empty()) lent_.Lend(std::move(key));
    return problem;
}

std::string RuleBaselines::WhyUnsigned() const {
    return Store().WhyUnsigned(lent_.Look().get());
}

void RuleBaselines::ForgetKeys() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [rule, state] : states_) state.key.reset();
}

void RuleBaselines::BeginCopying(const SentrelDirRule& rule, const std::string& approval,
                                 LentKey::Key key) {
    Store().MarkCopying(rule.real_path, rule.backup_path);
    Begin(rule, approval, std::move(key));
    const std::lock_guard<std::mutex> lock(mutex_);
    states_[KeyOf(rule)].backup_id = kNoBackupId;
}

void RuleBaselines::BeginAccepting(const SentrelDirRule& rule, const std::string& approval,
                                   LentKey::Key key) {
    Begin(rule, approval, std::move(key));
}

void RuleBaselines::Begin(const SentrelDirRule& rule, const std::string& approval,
                          LentKey::Key key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    State& state = states_[KeyOf(rule)];
    state.in_force.reset();
    state.generation = 0;
    state.obstacle.clear();
    state.approval = approval;
    state.key = std::move(key);
}

Baseline::ManifestInfo RuleBaselines::InfoOf(const SentrelDirRule& rule,
                                             unsigned attribute_kinds) const {
    Baseline::ManifestInfo info;
    info.real_path = rule.real_path;
    info.backup_path = rule.backup_path;
    info.is_file = rule.is_file;
    info.exclusions = RsyncExclusions::PatternsOf(rule);
    info.created = std::time(nullptr);
    info.approval = StateOf(rule).approval;
    info.attribute_kinds = attribute_kinds;
    return info;
}

RuleBaselines::Committed RuleBaselines::Commit(const AnchoredRule& rule, Commitment commitment,
                                               std::string& problem) {
    const SentrelDirRule& what = rule.Rule();
    const Baseline::BaselineStore store = Store();
    const Baseline::Generation last = store.Newest(what.real_path, what.backup_path);
    const auto fail = [&](const std::string& why) {
        problem = why;
        const std::lock_guard<std::mutex> lock(mutex_);
        states_[KeyOf(what)].key.reset();
        return Committed::kFailed;
    };
    // Without it all outside the parts would be foreign.
    if (commitment.parts && last.manifest == nullptr) return fail(last.problem);
    const CopyTree copies = CopiesOf(rule);
    if (copies.anchor == nullptr) {
        return fail(std::string("cannot open the copies: ") + std::strerror(errno));
    }
    const RsyncExclusions exclusions(what);
    Baseline::ManifestBuilder::Request request;
    request.copies = copies.root;
    if (commitment.is_copy_of_site) request.live = LiveTree(rule);
    request.last = last.manifest.get();
    request.parts = std::move(commitment.parts);
    request.begun = commitment.begun;
    request.open = std::move(commitment.open);
    request.ignored = [&](const std::string& below, bool is_directory) {
        return exclusions.Match(PathIn(rule, below), is_directory);
    };
    request.is_over = commitment.is_over;
    request.threads = std::min(2U, std::thread::hardware_concurrency());
    Baseline::ManifestWriter writer;
    if (!Baseline::ManifestBuilder(std::move(request)).Build(writer)) {
        return Committed::kInterrupted;
    }
    Baseline::Generation next = store.Commit(writer, InfoOf(what, commitment.attribute_kinds),
                                             kept_, StateOf(what).key.get());
    if (!next) return fail(next.problem);
    store.MarkBackup(what.real_path, what.backup_path);
    std::string id = store.BackupId(what.real_path, what.backup_path);
    const std::lock_guard<std::mutex> lock(mutex_);
    State& state = states_[KeyOf(what)];
    state.in_force = std::move(next.manifest);
    state.generation = next.number;
    state.key.reset();
    state.backup_id = std::move(id);
    return Committed::kYes;
}

RuleBaselines::Known RuleBaselines::Of(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = states_.find(KeyOf(rule));
    return known == states_.end() ? nullptr : known->second.in_force;
}

RuleBaselines::State RuleBaselines::StateOf(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = states_.find(KeyOf(rule));
    return known == states_.end() ? State() : known->second;
}

std::vector<unsigned int> RuleBaselines::Numbers(const SentrelDirRule& rule) const {
    return Store().Numbers(rule.real_path, rule.backup_path);
}

ReplacedCopies RuleBaselines::Replaced(const AnchoredRule& rule) const {
    const std::vector<unsigned int> numbers = Numbers(rule.Rule());
    return {rule, numbers.empty() ? 0 : numbers.back()};
}

bool RuleBaselines::TrimReplaced(const AnchoredRule& rule, std::int64_t limit_ms) const {
    const std::vector<unsigned int> numbers = Numbers(rule.Rule());
    // Without any the manifests may only be lost.
    return numbers.empty() || ReplacedCopies(rule, 0).Trim(numbers, limit_ms);
}

Baseline::Generation RuleBaselines::Get(const SentrelDirRule& rule, unsigned int number) const {
    const std::vector<unsigned int> numbers = Numbers(rule);
    if (std::find(numbers.begin(), numbers.end(), number) == numbers.end()) {
        Baseline::Generation none;
        none.number = number;
        none.problem = "it is not kept";
        return none;
    }
    return Store().Get(rule.real_path, rule.backup_path, number);
}

bool RuleBaselines::IsApproved(const AnchoredRule& rule, const std::string& path) const {
    const Known manifest = Of(rule.Rule());
    return manifest != nullptr && manifest->Find(Relative(rule, path)).has_value();
}

std::vector<RuleBaselines::Fault> RuleBaselines::CheckCopies(const AnchoredRule& rule,
                                                             const std::string& path) const {
    const Known manifest = Of(rule.Rule());
    if (manifest == nullptr) return {};
    const std::string below = Relative(rule, path);
    struct stat copy {};
    // The usual case, at the cost of one look.
    if (rule.StatCopy(path, copy) == 0 && !S_ISDIR(copy.st_mode)) {
        const std::optional<Baseline::ManifestEntry> entry = manifest->Find(below);
        if (entry && entry->copy.IsKnown() && entry->copy == Baseline::Identity::Of(copy)) {
            return {};
        }
    }
    const CopyTree copies = CopiesOf(rule);
    if (copies.anchor == nullptr) return {{PathIn(rule, below), "it cannot be opened"}};
    const RsyncExclusions exclusions(rule.Rule());
    std::vector<Fault> faults;
    Baseline::TreeVerifier::Request request;
    request.root = copies.root;
    request.manifest = manifest.get();
    request.side = Baseline::TreeVerifier::Side::kCopies;
    request.below = below;
    request.ignored = [&](const std::string& one, bool is_directory) {
        return exclusions.Match(PathIn(rule, one), is_directory);
    };
    request.is_over = [] { return false; };
    request.found = [&](const Baseline::Difference& difference) {
        faults.push_back({PathIn(rule, difference.path), Words(difference)});
    };
    Baseline::TreeVerifier(std::move(request)).Run();
    return faults;
}

Json::Value RuleBaselines::ToJson(const std::string& real_path,
                                  const std::string& backup_path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = states_.find({real_path, backup_path});
    if (known == states_.end() || known->second.in_force == nullptr) return {};
    const Baseline::Manifest& manifest = *known->second.in_force;
    Json::Value json(Json::objectValue);
    json["generation"] = known->second.generation;
    json["approved_at"] = static_cast<Json::Int64>(manifest.Info().created);
    json["approval"] = manifest.Info().approval;
    json["objects"] = static_cast<Json::UInt64>(manifest.Size());
    return json;
}

bool RuleBaselines::HasBackup(const SentrelDirRule& rule) const {
    std::optional<std::string> id = StateOf(rule).backup_id;
    if (!id) {
        id = Store().BackupId(rule.real_path, rule.backup_path);
        const std::lock_guard<std::mutex> lock(mutex_);
        states_[KeyOf(rule)].backup_id = id;
    }
    return Baseline::BaselineStore::HasBackupId(rule.backup_path, *id);
}

}  // namespace Engine
