// Owns how far a deploy has been put on the site. It must not decide how an object is restored
// (Undoer does).
#include "feature_sentrel/backup/DeployPutting.h"

#include <sdk/log/Log.h>
#include <sdk/restore/TreeRestorer.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "base/ModuleLogger.h"
#include "deploy/StagedTree.h"
#include "feature_sentrel/backup/StagedAcceptance.h"
#include "feature_sentrel/event_path/FileChange.h"
#include "feature_sentrel/event_path/Undoer.h"
#include "state/ModuleState.h"
#include "utils/ModuleReports.h"

namespace Engine {

namespace {

constexpr std::size_t kMostAtOnce = 64;

}  // namespace

bool DeployPutting::Work(const std::map<std::string, SentrelDirRule>& rules) {
    if (!put_) {
        put_ = state_.deploys.TakePut();
        if (!put_) return false;
        next_ = 0;
        result_ = {};
        result_.message = put_->problem;
    }
    const auto rule = std::find_if(rules.begin(), rules.end(), [this](const auto& one) {
        return put_->deploy.IsOf(one.second);
    });
    if (rule == rules.end()) {
        result_.message = "The policy no longer names " + put_->deploy.real_path + ".";
        state_.deploys.End(put_->deploy.id, result_);
        put_.reset();
        return true;
    }
    std::vector<std::string> portion;
    for (; portion.size() < kMostAtOnce && next_ < put_->paths.size(); ++next_) {
        PutOne(rule->first, rule->second, put_->paths[next_]);
        portion.push_back(put_->paths[next_]);
    }
    AlignDirectories(rule->second, portion);
    if (next_ < put_->paths.size()) return true;
    PutIgnored(rule->second);
    AlignDirectories(rule->second, put_->ignored);
    End(rule->second);
    return true;
}

void DeployPutting::Forget() {
    put_.reset();
    state_.deploys.TakeBack();
}

void DeployPutting::PutOne(const std::string& watch_id, const SentrelDirRule& rule,
                           const std::string& below) {
    const RulePlaces places = state_.anchors.Of(rule);
    if (!places) {
        result_.message = places.problem + ".";
        return;
    }
    const std::string path = PathIn(*places.anchors, below);
    state_.progress.Release(rule, below);
    struct stat copy {};
    const bool is_gone = places.anchors->StatCopy(path, copy) != 0 && errno == ENOENT;
    const UndoResult put = is_gone ? undoer_.Remove(rule, path) : undoer_.Restore(rule, path);
    ++result_.objects;
    if (!IsFailure(put.outcome)) return;
    result_.message = path + ": " + OutcomeText(put.outcome) + ".";
    failed_(watch_id, path);
}

/// A directory's time changes with what is put there. Its own event would find that.
void DeployPutting::AlignDirectories(const SentrelDirRule& rule,
                                     const std::vector<std::string>& paths) {
    const RulePlaces places = state_.anchors.Held(rule);
    if (!places) return;
    std::set<std::string> directories;
    for (const std::string& path : paths) {
        const std::size_t slash = path.rfind('/');
        directories.insert(slash == std::string::npos ? "" : path.substr(0, slash));
    }
    for (const std::string& below : directories) {
        const std::string path = PathIn(*places.anchors, below);
        const SDK::FileDescriptor live = places.anchors->OpenLiveDirectory(path);
        struct stat copy {};
        if (!live.IsOpen() || places.anchors->StatCopy(path, copy) != 0) continue;
        const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, copy.st_mtim};
        ::futimens(live.Get(), times.data());
    }
}

/// What is not protected has no copy. An object that the site has stays.
void DeployPutting::PutIgnored(const SentrelDirRule& rule) {
    const RulePlaces places = state_.anchors.Of(rule);
    const std::unique_ptr<SDK::PathAnchor> staged = StagedTree(put_->deploy.id).Upper();
    if (!places || staged == nullptr) return;
    for (const std::string& below : put_->ignored) {
        const std::string path = PathIn(*places.anchors, below);
        struct stat live {};
        struct stat info {};
        if (places.anchors->StatLive(path, live) == 0 || errno != ENOENT) continue;
        if (staged->Stat(below, info) != 0) continue;
        RemoveOverlayMarks(*staged, below);
        const SDK::PathAnchor::Entry to = places.anchors->Live(path);
        if (S_ISDIR(info.st_mode)) {
            SDK::TreeRestorer::Restore(staged->OpenParent(below), to,
                                       [](const std::string&, bool) { return false; });
        } else {
            SDK::ObjectRestorer::Restore(staged->OpenParent(below), to);
        }
    }
}

void DeployPutting::End(const SentrelDirRule& rule) {
    const Deploy& deploy = put_->deploy;
    result_.is_done = result_.message.empty();
    result_.generation = put_->generation;
    if (result_.is_done) {
        result_.message = result_.objects == 0
                              ? "Nothing was changed."
                              : std::to_string(result_.objects) +
                                    (result_.objects == 1 ? " change is" : " changes are") +
                                    " deployed.";
    }
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "deploy %s of %s (%s): %s", deploy.id, rule.real_path,
            deploy.By(), result_.message);
    ModuleReports::SendDeploy(result_.is_done ? "deployed" : "failed", deploy.user, deploy.process,
                              deploy.real_path, deploy.reason, put_->paths, put_->generation);
    state_.deploys.End(deploy.id, result_);
    put_.reset();
}

}  // namespace Engine
