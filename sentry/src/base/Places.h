#pragma once

#include <sdk/files/PathUtils.h>

#include <string>

namespace Sentry {

/// The file whose open the guard must answer.
inline std::string ProbeFile() {
    return SDK::PathUtils::GetInstallationPath() + "run/sentry.probe";
}

}  // namespace Sentry
