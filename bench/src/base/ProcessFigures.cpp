// Reads figures of a process from /proc. Stateless.
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

#include "base/Process.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

std::string Folder(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

/// False for a zombie.
bool IsAlive(pid_t pid) {
    std::ifstream file(Folder(pid) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name_end = text.rfind(") ");
    return name_end != std::string::npos && text[name_end + 2] != 'Z';
}

std::size_t StatusBytes(pid_t pid, std::string_view name) {
    std::ifstream file(Folder(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, name.size(), name) == 0) {
            return std::stoul(line.substr(name.size())) * 1024;
        }
    }
    return 0;
}

/// Calls `use` with the path of each entry. A folder that disappears is not an error.
template <class Use>
void ForEachEntry(const std::string& folder, const Use& use) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        use(it->path());
    }
}

}  // namespace

std::size_t ResidentBytes(pid_t pid) {
    return StatusBytes(pid, "VmRSS:");
}

std::size_t PeakBytes(pid_t pid) {
    return StatusBytes(pid, "VmHWM:");
}

std::chrono::nanoseconds ProcessorTime(pid_t pid) {
    std::chrono::nanoseconds total{0};
    ForEachEntry(Folder(pid) + "/task", [&](const fs::path& thread) {
        long long nanoseconds = 0;
        if (std::ifstream(thread / "schedstat") >> nanoseconds) {
            total += std::chrono::nanoseconds(nanoseconds);
        }
    });
    return total;
}

std::vector<pid_t> ProcessTree(pid_t pid) {
    std::vector<pid_t> tree{pid};
    for (std::size_t next = 0; next < tree.size(); ++next) {
        ForEachEntry(Folder(tree[next]) + "/task", [&](const fs::path& thread) {
            std::ifstream children(thread / "children");
            for (pid_t child = 0; children >> child;) {
                if (IsAlive(child)) tree.push_back(child);
            }
        });
    }
    return tree;
}

long WaitingEventBytes(pid_t pid) {
    const int process = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (process < 0) return -1;
    long total = -1;
    ForEachEntry(Folder(pid) + "/fd", [&](const fs::path& link) {
        std::error_code error;
        if (fs::read_symlink(link, error) != "anon_inode:inotify") return;
        const int number = std::stoi(link.filename().string());
        const int fd = static_cast<int>(::syscall(SYS_pidfd_getfd, process, number, 0));
        int bytes = 0;
        if (fd >= 0 && ::ioctl(fd, FIONREAD, &bytes) == 0) total = (total < 0 ? 0 : total) + bytes;
        if (fd >= 0) ::close(fd);
    });
    ::close(process);
    return total;
}

}  // namespace Bench
