#pragma once

#include <string_view>

namespace Engine::FileNotify {

/// True for the temporary names of the agent's own restores: ".morvane-restore-" and 16 hex digits.
/// Anybody may use such a name, so it must never be the only reason to ignore an object.
/// Thread-safe.
bool IsRestoreTemporary(std::string_view name);

}  // namespace Engine::FileNotify
