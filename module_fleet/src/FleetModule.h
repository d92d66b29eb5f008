#pragma once

#include <framework/Module.h>

#include <memory>

#include "FleetWorker.h"

namespace Engine {

/// The module "fleet_module": sends reports and state to the broker of a fleet and takes its
/// policies. Does nothing without the section "fleet" of conf/agent.json. Framework thread only.
class FleetModule : public Framework::Module {
  public:
    FleetModule();
    ~FleetModule() override;
    FleetModule(const FleetModule&) = delete;
    FleetModule& operator=(const FleetModule&) = delete;

    /// False when the section is wrong. A broker that does not answer is no failure.
    bool Init() override;
    void UnInit() override;

  private:
    std::unique_ptr<FleetWorker> worker_;
};

}  // namespace Engine
