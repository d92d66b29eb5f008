#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Sentry {

constexpr std::size_t kMostCommandLine = 256;

/// The command line of a process in one line, at most kMostCommandLine bytes. `arguments` are
/// separated by NUL, as in /proc/PID/cmdline. Values of passwords, tokens and keys become "***":
/// behind "password=" and the like, behind an option of such a name, and in "user:password@" of a
/// URL.
std::string SafeCommandLine(std::string_view arguments);

}  // namespace Sentry
