#pragma once

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "deploy/Deploys.h"

namespace Engine {

struct ModuleState;

/// Carries out committed deploys as far as the copies: takes what is staged into them, has the new
/// state signed and hands the deploy over to the inotify task. Goes on with one that a crash
/// interrupted. Backup task's thread.
class DeployTaking {
  public:
    /// Paths relative to the protected path; none: all of it.
    using Parts = std::optional<std::vector<std::string>>;
    struct Owner {
        std::function<bool()> is_over;  ///< asked often; true ends a pass
        /// Approves the copies of these parts.
        std::function<bool(const SentrelDirRule&, const Parts&)> sign;
    };
    /// `state` is borrowed.
    DeployTaking(ModuleState& state, Owner owner) : state_(state), owner_(std::move(owner)) {}

    /// Takes the deploy that waits, if there is one, ends abandoned ones and cleans up.
    void Work(const std::list<SentrelDirRule>& rules);

  private:
    void Take(const Deploy& deploy, const SentrelDirRule& rule);
    std::string WhyNot(const SentrelDirRule& rule) const;
    void Fail(const Deploy& deploy, const std::string& why);

    ModuleState& state_;
    const Owner owner_;
};

}  // namespace Engine
