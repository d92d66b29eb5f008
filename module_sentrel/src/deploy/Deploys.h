#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "deploy/LinkState.h"
#include "places/RuleAnchors.h"

namespace Engine {

/// Changes of one protected path that are being made beside the site, and become its approved state
/// as a whole or not at all.
struct Deploy {
    std::string id;
    std::string real_path;  ///< of the rule
    std::string backup_path;
    std::string reason;
    uid_t user = 0;
    pid_t process = 0;
    std::int64_t begun = 0;       ///< seconds since the epoch
    std::int64_t until = 0;       ///< it ends by itself then
    bool is_tree = false;         ///< mounted for several commands; no process waits for it
    bool is_committing = false;   ///< from now on it is carried out, also after a restart
    unsigned int generation = 0;  ///< the approved state that it began with
    LinkState link = {};          ///< the release link of the rule

    /// "user 0, process 4711: REASON"
    std::string By() const;
    bool IsOf(const SentrelDirRule& rule) const {
        return real_path == rule.real_path && backup_path == rule.backup_path;
    }
};

/// The open deploys, on the disk and in memory, and what became of the last ones. Hands a committed
/// deploy to the backup task, which takes it into the copies, and then to the inotify task, which
/// puts it on the site. Owned by ModuleState. Thread-safe.
class Deploys {
  public:
    /// Reads the journals; removes what is left of ended deploys.
    void Load();

    // Answers to queries; {"error"} otherwise. `request` has what the control API was given, with
    // "uid" and "pid" of the client.

    /// As Describe.
    Json::Value Begin(const Json::Value& request, const AnchoredRule& rule,
                      unsigned int generation);
    /// {"id","directory","root","copies","exclusions","subdirectories","link"}, paths
    /// percent-encoded.
    static Json::Value Describe(const Deploy& deploy, const SentrelDirRule& rule);
    /// {"id"}: it is carried out from now on. `generation` is the one in force for the deploy's
    /// path.
    Json::Value Commit(const std::string& id, unsigned int generation);
    /// {"id"}: nothing of it is kept.
    Json::Value Abort(const std::string& id);
    /// {"state","message","objects","generation"}, as of OperatorRequests.
    Json::Value Progress(const std::string& id) const;
    /// The open ones.
    Json::Value ToJson() const;

    std::optional<Deploy> Find(const std::string& id) const;
    bool IsOpen(const SentrelDirRule& rule) const;
    bool IsCommitting(const SentrelDirRule& rule) const;

    /// A committed deploy whose changes are to be taken into the copies.
    std::optional<Deploy> NextToTake() const;

    /// What is to be put on the site.
    struct Put {
        Deploy deploy;
        std::vector<std::string> paths;    ///< relative to the protected path, in order
        std::vector<std::string> ignored;  ///< not protected: straight from the staged tree
        unsigned int generation = 0;
        std::string problem = {};  ///< a sentence: not all was taken into the copies
    };
    void HandOver(Put put);
    std::optional<Put> TakePut();
    /// The inotify task ends: what it had not put is taken again later.
    void TakeBack();

    struct Result {
        bool is_done = false;
        std::string message;
        std::size_t objects = 0;
        unsigned int generation = 0;
    };
    void End(const std::string& id, const Result& result);

    /// Ends deploys whose time is over, or whose process is gone. Returns them.
    std::vector<Deploy> EndAbandoned(std::int64_t now);

    /// Removes the directories of ended deploys. May take long.
    void CleanUp();

  private:
    static constexpr std::size_t kRemembered = 64;
    static constexpr std::size_t kMostOpen = 16;
    struct Ended {
        std::string id;
        Result result;
    };

    std::string WhyNot(const SentrelDirRule& rule) const;
    void Drop(const Deploy& deploy, const std::string& message);
    void Remember(const std::string& id, const Result& result);

    mutable std::mutex mutex_;  ///< guards all below
    std::map<std::string, Deploy> open_;
    std::map<std::string, bool> handed_over_;  ///< ids that the inotify task has
    std::deque<Put> puts_;
    std::deque<Ended> ended_;
    std::vector<std::string> to_remove_;
    std::set<std::string> told_;  ///< that they cannot be removed
};

}  // namespace Engine
