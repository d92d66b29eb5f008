#pragma once

#include "base/Room.h"
#include "base/SharedState.h"

namespace Sentry {

/// The operations "shield.…".
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
    SharedState& state_;
};

}  // namespace Sentry
