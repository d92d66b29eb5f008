#include "who/process/ProcFs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <sstream>

#include "who/process/CommandLine.h"

namespace Sentry {

namespace {

constexpr std::size_t kMostBytes = 4096;
constexpr int kStartField = 19;  // of /proc/PID/stat, counted from the state

std::string Place(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string Contents(const std::string& path) {
    const SDK::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, kMostBytes> text{};
    const ssize_t size = file.IsOpen() ? ::read(file.Get(), text.data(), text.size()) : -1;
    return size > 0 ? std::string(text.data(), static_cast<std::size_t>(size)) : std::string();
}

std::string Target(const std::string& link) {
    std::array<char, kMostBytes> text{};
    const ssize_t size = ::readlink(link.c_str(), text.data(), text.size());
    return size > 0 ? std::string(text.data(), static_cast<std::size_t>(size)) : std::string();
}

struct Stat {
    std::string name;
    pid_t parent = 0;
    std::uint64_t start = 0;
};

/// The name may hold anything, also brackets.
bool ReadStat(pid_t pid, Stat& stat) {
    const std::string text = Contents(Place(pid, "stat"));
    const std::size_t begin = text.find('(');
    const std::size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin) return false;
    stat.name = text.substr(begin + 1, end - begin - 1);
    std::istringstream rest(text.substr(end + 1));
    std::string state;
    rest >> state >> stat.parent;
    std::string skipped;
    for (int field = 2; field < kStartField; ++field) rest >> skipped;
    rest >> stat.start;
    return !rest.fail();
}

std::uint32_t Number(const std::string& text) {
    return text.empty() ? kUnset
                        : static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
}

}  // namespace

/// The unified hierarchy; systemd's own one where that is not in use.
std::string ProcFs::CgroupOf(pid_t pid) {
    std::istringstream lines(Contents(Place(pid, "cgroup")));
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t path = line.find('/');
        if (path == std::string::npos) continue;
        const bool is_unified = line.rfind("0::", 0) == 0;
        const bool is_systemd = line.find(":name=systemd:") != std::string::npos;
        if ((is_unified || is_systemd) && line.size() - path > found.size()) {
            found = line.substr(path);
        }
    }
    return found;
}

bool ProcFs::ReadUser(pid_t pid, User& user) {
    const std::string text = Contents(Place(pid, "status"));
    const std::size_t line = text.find("\nUid:");
    if (line == std::string::npos) return false;
    std::istringstream numbers(text.substr(line + 5));
    numbers >> user.uid >> user.euid;
    return !numbers.fail();
}

std::uint64_t ProcFs::StartOf(pid_t pid) {
    Stat stat;
    return ReadStat(pid, stat) ? stat.start : 0;
}

ProcFs::Found ProcFs::Read(pid_t pid) {
    Stat stat;
    auto process = std::make_shared<Process>();
    if (!ReadStat(pid, stat) || !ReadUser(pid, process->user)) return {};
    process->pid = pid;
    process->start = stat.start;
    auto program = std::make_shared<Program>();
    program->exe = Target(Place(pid, "exe"));
    program->cmdline = SafeCommandLine(Contents(Place(pid, "cmdline")));
    if (program->exe.empty()) program->exe = "[" + stat.name + "]";
    process->program = std::move(program);
    process->login = Number(Contents(Place(pid, "loginuid")));
    process->session = Number(Contents(Place(pid, "sessionid")));
    process->cgroup = CgroupOf(pid);
    // Still the same process, so nothing above is of a later one.
    if (StartOf(pid) != stat.start) return {};
    return {std::move(process), stat.parent};
}

std::vector<pid_t> ProcFs::All() {
    std::vector<pid_t> pids;
    DIR* folder = ::opendir("/proc");
    if (folder == nullptr) return pids;
    while (const dirent* entry = ::readdir(folder)) {
        const long pid = std::strtol(entry->d_name, nullptr, 10);
        if (pid > 0) pids.push_back(static_cast<pid_t>(pid));
    }
    ::closedir(folder);
    return pids;
}

bool ProcFs::IsFirstNamespace() {
    return Target("/proc/self/ns/pid") == "pid:[4026531836]";
}

}  // namespace Sentry
