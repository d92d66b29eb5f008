#pragma once

#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Protected directories that the policy names by a symbolic link ("/var/www/current/"): where the
/// link leads, whether the agent follows it, and the hand-over of followed links to the backup
/// task. Owned by ModuleState. Thread-safe.
class ReleaseLinks {
  public:
    enum class Mode {
        kFollow,  ///< when the link and every directory on its way can be changed by root alone
        kHold,    ///< never, before a policy is applied
    };

    /// What conf/agent.json says (sentrel.release_link).
    static Mode ConfiguredMode();

    /// Sets the protected path of each rule that names a directory by a link, also of one that was
    /// resolved before, and notes the link in the rule. For a link with a trailing "/", which
    /// settings do not resolve.
    static void Resolve(std::list<SentrelDirRule>& rules);

    /// Where the link of a rule leads now. Both are empty where it leads to the protected path, and
    /// for a rule without a link.
    struct Finding {
        std::string target;   ///< the path to be protected from now on; ends in "/"
        std::string problem;  ///< why the link is not followed, in words
    };
    /// `rules` are all that are in force, by watch id. `held` says why no link is followed; empty:
    /// links are followed.
    static Finding Look(const SentrelDirRule& rule,
                        const std::map<std::string, SentrelDirRule>& rules,
                        const std::string& held);

    /// Has the backup task use `target` for the rule with this `filepath`.
    void Follow(const std::string& filepath, const std::string& target);
    /// A followed link waits for Apply.
    bool IsWaiting() const { return is_waiting_; }
    /// Gives the rules their followed targets.
    void Apply(std::list<SentrelDirRule>& rules);
    /// A policy is applied: its rules are resolved anew.
    void Clear();

  private:
    std::mutex mutex_;                            ///< guards targets_
    std::map<std::string, std::string> targets_;  ///< by filepath
    std::atomic<bool> is_waiting_{false};
};

}  // namespace Engine
