// Owns the worker. Runs on the framework thread.
#include "FleetModule.h"

#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <sdk/log/Log.h>

#include <string>
#include <utility>

#include "FleetLog.h"

namespace Engine {
namespace {

constexpr const char* kStatusQuery = "status.fleet";

}  // namespace

FleetModule::FleetModule() : Framework::Module(kFleetModuleName) {}

FleetModule::~FleetModule() = default;

bool FleetModule::Init() {
    const Framework::ConfigManager& config = Framework::ConfigManager::GetInstance();
    const Json::Value section = config.Section("fleet");
    if (section.empty()) return Framework::Module::Init();
    FleetSettings settings;
    std::string error;
    if (!ReadFleetSettings(section, config.GetAgentId(), settings, error)) {
        SDK_LOG(FleetLog(), PRIO_ERROR, "configuration: %s", error);
        return false;
    }
    worker_ = std::make_unique<FleetWorker>(std::move(settings), config.GetAgentId());
    Framework::Engine::Instance().Queries().Register(
        kStatusQuery, [this](const auto&) { return worker_->Status(); });
    return Framework::Module::Init();
}

void FleetModule::UnInit() {
    Framework::Engine::Instance().Queries().Unregister(kStatusQuery);
    worker_.reset();
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" void* CreateModule() {
    try {
        return new Engine::FleetModule();  // owned by the framework
    } catch (...) {
        return nullptr;
    }
}
