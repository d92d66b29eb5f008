#pragma once

#include <Poco/Logger.h>

namespace Engine {

/// The module's logger, for SDK_LOG; null when there is none. Any thread.
Poco::Logger* ModuleLogger();

}  // namespace Engine
