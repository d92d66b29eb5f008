#pragma once

#include <string_view>

namespace Engine::FileNotify {

/// The names under which the agent's own restores show up in a watched directory. Anybody may use
/// such names, so a name alone never decides that something is left out. Any thread.

/// ".morvane-restore-" and 16 hex digits: a restored object before it takes its place.
bool IsRestoreTemporary(std::string_view name);

}  // namespace Engine::FileNotify
