#pragma once

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>

#include <string>

namespace Framework {

/// The text of the exception that is being handled. Call it in a catch (...) block only.
std::string DescribeCurrentException();

inline Poco::Logger* RootLogger() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

/// Runs code of modules. Returns an empty text, or that of its exception; never throws.
template <typename Function>
std::string RunGuarded(Function&& function) {
    try {
        function();
        return {};
    } catch (...) {
        return DescribeCurrentException();
    }
}

}  // namespace Framework
