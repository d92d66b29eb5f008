#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Room.h"
#include "base/SharedState.h"
#include "shield/Guard.h"

namespace Sentry {

/// The operation "shield.rules": {"serial","rules"} says which directories are shielded from now
/// on; an older serial than the last is ignored. When it is answered, no other directory is. The
/// events "shield.healed" {"path","rule"} with what was tampered, and "shield.trouble"
/// {"rule","what"}; paths are percent-encoded.
class ShieldRoom : public Room {
  public:
    /// Borrows `state`.
    explicit ShieldRoom(SharedState& state) : state_(state) {}

    std::string Name() const override { return "shield"; }
    void Start(const Json::Value& settings, pid_t agent, Tell tell) override;
    Json::Value Answer(const std::string& operation, const Json::Value& request) override;
    Json::Value Status() const override;
    void Stop() override;

  private:
    struct Shielded {
        Json::Value wanted;  ///< as the agent describes it, without "held"
        std::string problem;
        std::unique_ptr<Guard> guard;  ///< null: it cannot be shielded
    };

    void TakeRules(const Json::Value& rules);
    Shielded Begin(const Json::Value& wanted, std::vector<std::string> held) const;
    Json::Value ToJson(const std::string& path, const Shielded& shielded) const;

    SharedState& state_;
    Tell tell_;
    Guard::Settings settings_;
    Json::UInt64 serial_ = 0;
    /// Events that the agent did not take, since it does not keep up.
    const std::shared_ptr<std::atomic<std::uint64_t>> untold_ =
        std::make_shared<std::atomic<std::uint64_t>>(0);
    std::map<std::string, Shielded> shielded_;  ///< by the path as the agent encodes it
};

}  // namespace Sentry
