#pragma once

#include <json/value.h>

namespace Engine {

/// Decides from the module's own answer to "status.sentrel" whether a change of a protected path is
/// undone now: {"state","reasons":[{"code","text","path"}]}. "state" is "healthy", "degraded"
/// (something keeps some change from being undone) or "off" (nothing is undone now). The agent adds
/// what it knows itself (StatusDocument). Codes: docs/troubleshooting.md. Pure; thread-safe.
Json::Value ProtectionHealth(const Json::Value& status);

}  // namespace Engine
