#pragma once

#include <Poco/Logger.h>

namespace Engine {

/// The module's logger, for SDK_LOG; may be null. Thread-safe.
Poco::Logger* ModuleLogger();

}  // namespace Engine
