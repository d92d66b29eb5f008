// Owns the decision about one open. Must not answer the kernel (Guard does).
#include "shield/Judge.h"

#include <sdk/files/FileUtils.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

#include "shield/Content.h"

namespace Sentry {

namespace {

constexpr int kGenerations = 8;
constexpr std::size_t kLeastFailures = 20;  // fewer are no sign of wrong copies
constexpr int kTries = 3;

/// Reads the file only if it was changed since it was approved.
bool Equals(int file, const Baseline::ManifestEntry& approved) {
    struct stat info {};
    if (::fstat(file, &info) != 0 || static_cast<std::uint64_t>(info.st_size) != approved.size) {
        return false;
    }
    return Baseline::Identity::Of(info) == approved.live || HasContent(file, approved);
}

/// 0 when it cannot be told.
pid_t ParentOf(pid_t process) {
    constexpr long kMostBytes = 4096;
    std::string text;
    if (SDK::FileUtils::ReadFile("/proc/" + std::to_string(process) + "/stat", text, kMostBytes) !=
        0) {
        return 0;
    }
    // The name in parentheses may have any bytes.
    const std::size_t end = text.rfind(')');
    constexpr int kDecimal = 10;
    constexpr std::size_t kToParent = 4;  // ") S "
    if (end == std::string::npos || end + kToParent >= text.size()) return 0;
    return static_cast<pid_t>(std::strtol(text.c_str() + end + kToParent, nullptr, kDecimal));
}

}  // namespace

Judge::Judge(std::shared_ptr<const ShieldRule> rule, const FanotifyGroup& group,
             const Settings& settings, Healed healed, Trouble trouble)
    : rule_(std::move(rule)),
      group_(group),
      settings_(settings),
      healed_(std::move(healed)),
      trouble_(std::move(trouble)),
      held_(settings.held) {}

void Judge::SetRoot(std::shared_ptr<const SDK::PathAnchor> root) {
    const std::lock_guard<std::mutex> lock(mutex_);
    root_ = std::move(root);
}

std::shared_ptr<const SDK::PathAnchor> Judge::Root() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return root_;
}

bool Judge::Allows(int file, pid_t process) {
    struct stat info {};
    if (::fstat(file, &info) != 0) return true;
    const std::lock_guard<std::mutex> turn(turns_[info.st_ino % kTurns]);
    Place place;
    Baseline::ManifestEntry approved;
    const Verdict verdict = Look(file, place, approved);
    if (verdict == Verdict::kApproved || verdict == Verdict::kNotGuarded) return true;
    if (IsOfAgent(process)) return true;
    const ShieldMode mode = Mode();
    if (mode == ShieldMode::kMonitor) {
        ++counts_.passed;
        return true;
    }
    if (verdict == Verdict::kForeign) return Refuse(place, "it was not approved");
    if (verdict == Verdict::kUnknown) return Refuse(place, "its name is not known");
    if (mode == ShieldMode::kDeny) return Refuse(place, "it was changed");
    const std::string problem = Heal(file, place, approved);
    return problem.empty() || Refuse(place, problem);
}

bool Judge::Refuse(const Place& place, const std::string& why) {
    // Too many failures may just have ended the healing.
    if (Mode() == ShieldMode::kMonitor) {
        ++counts_.passed;
        return true;
    }
    ++counts_.refused;
    const std::lock_guard<std::mutex> lock(mutex_);
    last_refusal_ = rule_->real_path + place.below + ": " + why;
    return false;
}

Judge::Verdict Judge::Look(int file, Place& place, Baseline::ManifestEntry& approved) {
    struct stat info {};
    const std::shared_ptr<const SDK::PathAnchor> root = Root();
    if (root == nullptr || ::fstat(file, &info) != 0 || S_ISDIR(info.st_mode)) {
        return Verdict::kNotGuarded;
    }
    place = Place::Of(*rule_, *root, file, info);
    if (place.kind == Place::Kind::kIgnored) return Verdict::kNotGuarded;
    if (place.kind == Place::Kind::kMoved) return Verdict::kUnknown;
    if (IsHeld(place.below)) return Verdict::kNotGuarded;
    const std::optional<Baseline::ManifestEntry> entry = rule_->manifest->Find(place.below);
    if (!entry) return Verdict::kForeign;
    approved = *entry;
    if (approved.IsOpen()) return Verdict::kNotGuarded;
    if (!S_ISREG(info.st_mode) || approved.Type() != S_IFREG) return Verdict::kForeign;
    return Compare(file, approved);
}

/// The mark comes before the last look: a change that this look does not see has not ended yet, and
/// its end takes the mark away.
Judge::Verdict Judge::Compare(int file, const Baseline::ManifestEntry& approved) const {
    for (int i = 0; i < kTries; ++i) {
        if (!Equals(file, approved)) return Verdict::kChanged;
        if (!group_.LetThrough(file) || Equals(file, approved)) return Verdict::kApproved;
        group_.AskAgain(file);
    }
    return Verdict::kChanged;
}

void Judge::SetHeld(std::vector<std::string> held) {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_ = std::move(held);
}

bool Judge::IsHeld(const std::string& below) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(held_.begin(), held_.end(),
                       [&below](const std::string& one) { return Baseline::IsWithin(below, one); });
}

std::string Judge::LastRefusal() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return last_refusal_;
}

std::string Judge::Heal(int file, const Place& place, const Baseline::ManifestEntry& approved) {
    const std::string path = rule_->real_path + place.below;
    std::string problem =
        Healer::Heal(*rule_, *Root(), place.below, approved, file, settings_.most_bytes,
                     [&](int content) { healed_(path, content); });
    if (problem.empty()) {
        ++counts_.healed;
        return problem;
    }
    NoteFailure(place.below, problem);
    return problem;
}

void Judge::NoteFailure(const std::string& below, const std::string& why) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (is_fallen_back_ || !failed_.insert(below).second) return;
    const std::size_t most = std::max<std::size_t>(
        kLeastFailures, rule_->manifest->Size() * settings_.most_percent / 100);
    if (failed_.size() <= most) return;
    is_fallen_back_ = true;
    trouble_("the shield only monitors now: " + std::to_string(failed_.size()) +
             " files could not be healed, the last because " + why);
}

bool Judge::IsOfAgent(pid_t process) const {
    for (int i = 0; i < kGenerations && process > 1; ++i) {
        if (process == settings_.agent) return true;
        process = ParentOf(process);
    }
    return false;
}

}  // namespace Sentry
