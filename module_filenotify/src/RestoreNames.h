#pragma once

#include <string_view>

namespace Engine::FileNotify {

/// The names under which the agent's own restores show up in a watched directory. Anybody may use
/// such names, so a name alone never decides that something is left out. Any thread.

/// "#" and an inode number: how the kernel calls a file that has no name (O_TMPFILE) when it is
/// written to.
bool IsUnnamedFile(std::string_view name);

/// ".morvane-restore-" and 16 hex digits: a restored object before it takes its place.
bool IsRestoreTemporary(std::string_view name);

}  // namespace Engine::FileNotify
