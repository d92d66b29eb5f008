// Owns which deploys are open and how far each is. It must not read or take what they change
// (StagedAcceptance does). Any thread.
#include "deploy/Deploys.h"

#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "base/ModuleLogger.h"
#include "deploy/StagedTree.h"
#include "rsync/RsyncExclusions.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr char kJournal[] = "deploy.json";
constexpr int kLeastSeconds = 1;
constexpr int kMostSeconds = 7 * 24 * 3600;
constexpr int kDefaultSeconds = 3600;
constexpr long kUntilLocked = 30;  ///< seconds that morvanectl has to lock a new deploy

Json::Value Error(const std::string& sentence) {
    Json::Value answer(Json::objectValue);
    answer["error"] = sentence;
    return answer;
}

Json::Value IdOnly(const std::string& id) {
    Json::Value answer(Json::objectValue);
    answer["id"] = id;
    return answer;
}

Json::Value Encoded(const std::vector<std::string>& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) array.append(SDK::PercentEncode(text));
    return array;
}

Json::Value JournalOf(const Deploy& deploy) {
    Json::Value journal(Json::objectValue);
    journal["real_path"] = SDK::PercentEncode(deploy.real_path);
    journal["backup_path"] = SDK::PercentEncode(deploy.backup_path);
    journal["reason"] = SDK::PercentEncode(deploy.reason);
    journal["user"] = deploy.user;
    journal["process"] = deploy.process;
    journal["begun"] = static_cast<Json::Int64>(deploy.begun);
    journal["until"] = static_cast<Json::Int64>(deploy.until);
    journal["is_tree"] = deploy.is_tree;
    journal["state"] = deploy.is_committing ? "committing" : "open";
    journal["generation"] = deploy.generation;
    journal["link"] = SDK::PercentEncode(deploy.link.link);
    journal["link_text"] = SDK::PercentEncode(deploy.link.text);
    return journal;
}

bool ReadText(const Json::Value& journal, const char* key, std::string& text) {
    return SDK::PercentDecode(JsonUtils::GetStringValue(journal, key, "%"), text);
}

/// False when the journal is missing or damaged.
bool ReadJournal(const std::string& id, Deploy& deploy) {
    deploy.id = id;
    const std::string text = StagedTree(id).ReadFile(kJournal);
    Json::Value journal;
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), journal) != 0) return false;
    deploy.user = journal["user"].isUInt() ? journal["user"].asUInt() : static_cast<uid_t>(-1);
    deploy.process = JsonUtils::GetIntValue(journal, "process", 0);
    deploy.begun = journal["begun"].isInt64() ? journal["begun"].asInt64() : 0;
    deploy.until = journal["until"].isInt64() ? journal["until"].asInt64() : 0;
    deploy.is_tree = JsonUtils::GetBoolValue(journal, "is_tree", false);
    deploy.is_committing = journal["state"] == "committing";
    deploy.generation = journal["generation"].isUInt() ? journal["generation"].asUInt() : 0;
    return ReadText(journal, "real_path", deploy.real_path) &&
           ReadText(journal, "backup_path", deploy.backup_path) &&
           ReadText(journal, "reason", deploy.reason) &&
           ReadText(journal, "link", deploy.link.link) &&
           ReadText(journal, "link_text", deploy.link.text);
}

int WriteJournal(const Deploy& deploy) {
    return StagedTree(deploy.id).WriteFile(kJournal, JsonUtils::JsonToString(JournalOf(deploy)));
}

Deploy NewDeploy(const Json::Value& request, const SentrelDirRule& rule) {
    Deploy deploy;
    deploy.id = StagedTree::NewId();
    deploy.real_path = rule.real_path;
    deploy.backup_path = rule.backup_path;
    deploy.reason = JsonUtils::GetStringValue(request, "reason", "");
    deploy.user = request["uid"].isUInt() ? request["uid"].asUInt() : static_cast<uid_t>(-1);
    deploy.process = request["pid"].isInt() ? request["pid"].asInt() : 0;
    deploy.begun = std::time(nullptr);
    const int seconds = JsonUtils::GetIntValue(request, "seconds", kDefaultSeconds);
    deploy.until = deploy.begun + std::clamp(seconds, kLeastSeconds, kMostSeconds);
    deploy.is_tree = JsonUtils::GetBoolValue(request, "tree", false);
    deploy.link = LinkState::Of(rule.link);
    return deploy;
}

}  // namespace

Json::Value Deploys::Describe(const Deploy& deploy, const SentrelDirRule& rule) {
    const std::string root = SDK::PathUtils::WithoutTrailingSlash(rule.real_path);
    Json::Value answer = IdOnly(deploy.id);
    answer["directory"] = SDK::PercentEncode(StagedTree(deploy.id).Path());
    answer["root"] = SDK::PercentEncode(root);
    answer["copies"] =
        SDK::PercentEncode(SDK::PathUtils::WithoutTrailingSlash(rule.backup_path) + root);
    answer["exclusions"] = Encoded(RsyncExclusions::PatternsOf(rule));
    answer["subdirectories"] = Encoded({rule.ignored_subdir.begin(), rule.ignored_subdir.end()});
    answer["link"] = SDK::PercentEncode(rule.link);
    return answer;
}

std::string Deploy::By() const {
    return "user " + std::to_string(user) + ", process " + std::to_string(process) +
           (reason.empty() ? "" : ": " + reason);
}

void Deploys::Load() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_.clear();
    puts_.clear();
    handed_over_.clear();
    const std::int64_t now = std::time(nullptr);
    for (const std::string& id : StagedTree::All()) {
        Deploy deploy;
        const bool is_known = ReadJournal(id, deploy);
        const bool goes_on = deploy.is_tree ? deploy.until > now : StagedTree(id).IsLocked();
        if (is_known && (deploy.is_committing || goes_on)) {
            open_[id] = deploy;
        } else {
            Drop(deploy, "It was left behind.");
        }
    }
}

std::string Deploys::WhyNot(const SentrelDirRule& rule) const {
    if (rule.is_file) return "A single file is protected there; use pause.";
    if (open_.size() >= kMostOpen) return "Too many deploys are open.";
    for (const auto& [id, deploy] : open_) {
        if (deploy.IsOf(rule)) {
            return "A deploy of " + deploy.real_path + " is open already: " + id + ".";
        }
    }
    return "";
}

Json::Value Deploys::Begin(const Json::Value& request, const AnchoredRule& rule,
                           unsigned int generation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::string why = WhyNot(rule.Rule());
    if (!why.empty()) return Error(why);
    const SDK::FileDescriptor root = rule.OpenCopyDirectory(rule.RootPath());
    if (!root.IsOpen()) return Error("The backup copies cannot be opened.");
    Deploy deploy = NewDeploy(request, rule.Rule());
    deploy.generation = generation;
    const StagedTree tree(deploy.id);
    if (tree.Make(root.Get()) != 0 || WriteJournal(deploy) != 0) {
        const int error = errno;
        tree.Remove();
        return Error("Cannot make " + tree.Path() + ": " + std::strerror(error) + ".");
    }
    open_[deploy.id] = deploy;
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "deploy %s of %s has begun (%s).", deploy.id,
            deploy.real_path, deploy.By());
    return Describe(deploy, rule.Rule());
}

Json::Value Deploys::Commit(const std::string& id, unsigned int generation) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = open_.find(id);
    if (known == open_.end()) return Error("There is no open deploy " + id + ".");
    Deploy& deploy = known->second;
    if (deploy.is_committing) return IdOnly(id);
    if (generation != deploy.generation) {
        return Error("The approved state of " + deploy.real_path +
                     " has changed since the deploy began; begin again.");
    }
    deploy.is_committing = true;
    if (WriteJournal(deploy) == 0) return IdOnly(id);
    const int error = errno;
    deploy.is_committing = false;
    return Error(std::string("Cannot write the journal: ") + std::strerror(error) + ".");
}

Json::Value Deploys::Abort(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = open_.find(id);
    if (known == open_.end()) return Error("There is no open deploy " + id + ".");
    if (known->second.is_committing) return Error("The deploy is being carried out.");
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "deploy %s of %s was aborted.", id,
            known->second.real_path);
    Drop(known->second, "The deploy was aborted.");
    open_.erase(known);
    return IdOnly(id);
}

Json::Value Deploys::Progress(const std::string& id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value answer(Json::objectValue);
    Result result;
    if (const auto known = open_.find(id); known != open_.end()) {
        answer["state"] = known->second.is_committing ? "running" : "waiting";
    } else {
        const auto ended = std::find_if(ended_.begin(), ended_.end(),
                                        [&](const Ended& one) { return one.id == id; });
        if (ended == ended_.end()) return Error("There is no deploy " + id + ".");
        result = ended->result;
        answer["state"] = result.is_done ? "done" : "failed";
    }
    answer["message"] = result.message;
    answer["objects"] = static_cast<Json::UInt64>(result.objects);
    answer["generation"] = result.generation;
    return answer;
}

Json::Value Deploys::ToJson() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value all(Json::arrayValue);
    for (const auto& [id, deploy] : open_) {
        Json::Value one(Json::objectValue);
        one["id"] = id;
        one["path"] = deploy.real_path;
        one["user"] = deploy.user;
        one["process"] = deploy.process;
        one["reason"] = deploy.reason;
        one["begun"] = static_cast<Json::Int64>(deploy.begun);
        one["until"] = static_cast<Json::Int64>(deploy.until);
        one["state"] = deploy.is_committing ? "committing" : "open";
        one["tree"] = deploy.is_tree ? StagedTree(id).Path() + "/tree" : "";
        all.append(one);
    }
    return all;
}

std::optional<Deploy> Deploys::Find(const std::string& id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = open_.find(id);
    if (known == open_.end()) return std::nullopt;
    return known->second;
}

bool Deploys::IsOpen(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(open_.begin(), open_.end(),
                       [&](const auto& one) { return one.second.IsOf(rule); });
}

bool Deploys::IsCommitting(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(open_.begin(), open_.end(), [&](const auto& one) {
        return one.second.is_committing && one.second.IsOf(rule);
    });
}

std::optional<Deploy> Deploys::NextToTake() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, deploy] : open_) {
        if (deploy.is_committing && handed_over_.count(id) == 0) return deploy;
    }
    return std::nullopt;
}

void Deploys::HandOver(Put put) {
    const std::lock_guard<std::mutex> lock(mutex_);
    handed_over_[put.deploy.id] = true;
    puts_.push_back(std::move(put));
}

std::optional<Deploys::Put> Deploys::TakePut() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (puts_.empty()) return std::nullopt;
    Put put = std::move(puts_.front());
    puts_.pop_front();
    return put;
}

void Deploys::TakeBack() {
    const std::lock_guard<std::mutex> lock(mutex_);
    puts_.clear();
    handed_over_.clear();
}

void Deploys::End(const std::string& id, const Result& result) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = open_.find(id);
    if (known == open_.end()) return;
    // Nothing of it was taken.
    if (!result.is_done && result.generation == 0) known->second.link.PutBack();
    open_.erase(known);
    handed_over_.erase(id);
    // After a restart this one is not carried out again.
    StagedTree(id).WriteFile(kJournal, "{}");
    to_remove_.push_back(id);
    Remember(id, result);
}

std::vector<Deploy> Deploys::EndAbandoned(std::int64_t now) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Deploy> ended;
    for (auto one = open_.begin(); one != open_.end();) {
        const Deploy& deploy = one->second;
        const StagedTree tree(deploy.id);
        const bool is_over =
            deploy.is_tree ? now >= deploy.until : tree.Age() > kUntilLocked && !tree.IsLocked();
        if (deploy.is_committing || !is_over) {
            ++one;
            continue;
        }
        Drop(deploy, deploy.is_tree ? "Its time was over." : "Its command ended.");
        ended.push_back(deploy);
        one = open_.erase(one);
    }
    return ended;
}

void Deploys::CleanUp() {
    std::vector<std::string> ids;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ids.swap(to_remove_);
    }
    for (const std::string& id : ids) {
        if (StagedTree(id).Remove()) continue;
        const std::lock_guard<std::mutex> lock(mutex_);
        to_remove_.push_back(id);
        if (!told_.insert(id).second) continue;
        SDK_LOG(ModuleLogger(), PRIO_WARNING,
                "the directory of deploy %s cannot be removed yet; is it still mounted?", id);
    }
}

/// Nothing of it is kept.
void Deploys::Drop(const Deploy& deploy, const std::string& message) {
    const std::string problem = deploy.link.PutBack();
    if (!problem.empty()) SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s", problem);
    to_remove_.push_back(deploy.id);
    Remember(deploy.id, {false, message, 0, 0});
}

void Deploys::Remember(const std::string& id, const Result& result) {
    ended_.push_back({id, result});
    if (ended_.size() > kRemembered) ended_.pop_front();
}

}  // namespace Engine
