#pragma once

#include <Poco/Exception.h>
#include <framework/Engine.h>

namespace Engine {

/// Null in a process without an engine, such as a test of one class.
inline Framework::Engine* RunningEngine() {
    try {
        return &Framework::Engine::Instance();
    } catch (const Poco::Exception&) {
        return nullptr;
    }
}

}  // namespace Engine
