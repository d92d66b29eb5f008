// Reads the facts of the machine from /proc and dpkg.
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/utsname.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string_view>
#include <thread>

#include "products/Product.h"
#include "report/Document.h"

namespace Bench {
namespace {

/// The value of the line of `file` that begins with `key`.
std::string Field(const std::string& file, const std::string& key) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) != 0) continue;
        const std::size_t start = line.find_first_not_of(": \t", key.size());
        return start == std::string::npos ? "" : line.substr(start);
    }
    return "unknown";
}

/// What a loop device adds to the name of its file system; empty for other devices.
std::string LoopDevice(const std::string& device) {
    constexpr std::string_view kFolder = "/dev/";
    if (device.compare(0, 9, "/dev/loop") != 0) return {};
    const std::string name = device.substr(kFolder.size());
    std::ifstream backing("/sys/block/" + name + "/loop/backing_file");
    std::string file;
    std::getline(backing, file);
    struct statfs info {};
    const bool in_memory = ::statfs(file.c_str(), &info) == 0 && info.f_type == TMPFS_MAGIC;
    return in_memory ? ", an image in memory" : ", an image";
}

/// The file system of `work`: that of the longest mount point above it.
std::string FileSystem(const std::string& work) {
    std::ifstream mounts("/proc/self/mounts");
    std::string best;
    std::string found = "unknown";
    for (std::string device, point, type, rest; mounts >> device >> point >> type;) {
        std::getline(mounts, rest);
        const bool holds =
            point == "/" || (work + "/").compare(0, point.size() + 1, point + "/") == 0;
        if (holds && point.size() >= best.size()) {
            best = point;
            found = type + " (" + rest.substr(1, rest.find(' ', 1) - 1) + ")" + LoopDevice(device);
        }
    }
    return found;
}

std::string Version(const std::string& package) {
    const std::string command = "dpkg-query -W -f='${Version}' " + package + " 2>/dev/null";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::array<char, 128> text{};
    if (!pipe || std::fgets(text.data(), text.size(), pipe.get()) == nullptr) return "missing";
    return text.data();
}

}  // namespace

Json::Value DescribeMachine(const std::string& work) {
    Json::Value machine;
    utsname kernel{};
    ::uname(&kernel);
    machine["cores"] = std::to_string(std::thread::hardware_concurrency()) + ", " +
                       Field("/proc/cpuinfo", "model name");
    machine["memory"] = Field("/proc/meminfo", "MemTotal");
    machine["kernel"] = std::string(kernel.release) + " " + kernel.machine;
    machine["file system"] = FileSystem(work);
    for (const char* limit : {"max_user_watches", "max_queued_events"}) {
        machine[limit] = Field(std::string("/proc/sys/fs/inotify/") + limit, "");
    }
    std::string versions;
    for (const char* package : {"rsync", "inotify-tools", "lsyncd", "watchman"}) {
        versions += (versions.empty() ? "" : ", ") + std::string(package) + " " + Version(package);
    }
    machine["versions"] = versions;
    return machine;
}

}  // namespace Bench
