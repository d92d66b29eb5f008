#pragma once

#include <Poco/Logger.h>
#include <sdk/log/LoggerUtils.h>

namespace Engine {

constexpr const char* kFleetModuleName = "fleet_module";

/// The module's logger. Thread-safe.
inline Poco::Logger* FleetLog() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kFleetModuleName, 0);
}

}  // namespace Engine
