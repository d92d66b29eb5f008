#pragma once

#include <Poco/Logger.h>
#include <sdk/log/LoggerUtils.h>

namespace Engine {

constexpr const char* kReportModuleName = "report_module";

/// The module's logger. Thread-safe.
inline Poco::Logger* ReportLog() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kReportModuleName, 0);
}

}  // namespace Engine
