#include "sdk/commands/ProcessUtils.h"

#include <signal.h>

#include <cerrno>
#include <climits>
#include <string>

#include "sdk/files/FileUtils.h"

namespace SDK {

namespace {

constexpr long kStatSize = 4096;

/// The state letter of /proc/PID/stat. It follows the command name, which may hold any byte.
char ProcessState(unsigned int pid) {
    std::string stat;
    if (FileUtils::ReadFile("/proc/" + std::to_string(pid) + "/stat", stat, kStatSize) != 0) {
        return '?';
    }
    const std::size_t name_end = stat.rfind(") ");
    return name_end == std::string::npos || name_end + 2 >= stat.size() ? '?' : stat[name_end + 2];
}

}  // namespace

bool ProcessUtils::IsProcessAlive(unsigned int pid) {
    // kill(2) treats 0 and negative numbers as process groups.
    if (pid == 0 || pid > INT_MAX) return false;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) return false;
    const char state = ProcessState(pid);
    return state != 'Z' && state != 'X';
}

}  // namespace SDK
