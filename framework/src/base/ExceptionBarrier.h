#pragma once

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>

#include <string>

namespace Framework {

/// What the exception being handled says. For a catch (...) block only.
std::string DescribeCurrentException();

inline Poco::Logger* RootLogger() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

/// Runs foreign code. Empty when it returned, else what it threw; never throws itself.
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
