#include "sdk/files/PathAnchor.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "files/OpenBeneath.h"

namespace SDK {

namespace {

constexpr int kListing = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kResolving = O_PATH | O_DIRECTORY | O_CLOEXEC;

std::string_view WithoutTrailingSlashes(std::string_view path) {
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    return path;
}

bool LeadsUpwards(std::string_view path) {
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (path.substr(start, end - start) == "..") return true;
        start = end + 1;
    }
    return false;
}

/// False (EINVAL) for a path that cannot be below an anchor.
bool IsBelow(std::string_view path) {
    const bool good = (path.empty() || path.front() != '/') && !LeadsUpwards(path) &&
                      path.find('\0') == std::string_view::npos;
    if (!good) errno = EINVAL;
    return good;
}

/// Without trailing "/" and "/.": open(2) would follow a link before them.
std::string WithoutTrailingDots(std::string path) {
    while (path.size() > 1 && (path.back() == '/' || path.compare(path.size() - 2, 2, "/.") == 0)) {
        path.pop_back();
    }
    return path;
}

}  // namespace

PathAnchor::PathAnchor(std::string path, FileDescriptor directory, const struct stat& info)
    : path_(std::move(path)),
      directory_(std::move(directory)),
      device_(info.st_dev),
      inode_(info.st_ino) {}

std::unique_ptr<PathAnchor> PathAnchor::Open(const std::string& path) {
    return Hold(FileDescriptor(::open(WithoutTrailingDots(path).c_str(), kListing | O_NOFOLLOW)),
                path);
}

std::unique_ptr<PathAnchor> PathAnchor::Hold(FileDescriptor directory, const std::string& path) {
    struct stat info {};
    if (!directory.IsOpen() || ::fstat(directory.Get(), &info) != 0) return nullptr;
    return std::unique_ptr<PathAnchor>(
        new PathAnchor(WithoutTrailingDots(path), std::move(directory), info));
}

// The open descriptor keeps the inode, so no other directory can have its number.
bool PathAnchor::IsInPlace() const {
    struct stat info {};
    return ::lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_;
}

FileDescriptor PathAnchor::OpenDirectory(std::string_view below, MountPoints mount_points) const {
    if (!IsBelow(below)) return {};
    return OpenBeneath(directory_.Get(), WithoutTrailingSlashes(below), kListing, mount_points);
}

PathAnchor::Entry PathAnchor::OpenParent(std::string_view below, MountPoints mount_points) const {
    if (!IsBelow(below)) return {};
    const std::string_view path = WithoutTrailingSlashes(below);
    const std::size_t name_start = path.rfind('/') + 1;  // npos + 1 is 0
    const std::string_view name = path.substr(name_start);
    if (name.empty() || name == ".") {
        errno = EINVAL;
        return {};
    }
    FileDescriptor parent =
        OpenBeneath(directory_.Get(), WithoutTrailingSlashes(path.substr(0, name_start)),
                    kResolving, mount_points);
    return {std::move(parent), std::string(name)};
}

int PathAnchor::Stat(std::string_view below, struct stat& info) const {
    if (!IsBelow(below)) return -1;
    const std::string path(WithoutTrailingSlashes(below));
    if (path.empty() || path == ".") return ::fstat(directory_.Get(), &info);
    const auto stat_in = [&](int directory, const std::string& name) {
        return ::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
    };
    if (path.find('/') == std::string::npos) return stat_in(directory_.Get(), path);
    if (path.compare(path.size() - 2, 2, "/.") == 0) {
        const FileDescriptor directory = OpenDirectory(path);
        return directory.IsOpen() ? ::fstat(directory.Get(), &info) : -1;
    }
    const Entry entry = OpenParent(path);
    return entry.IsOpen() ? stat_in(entry.directory.Get(), entry.name) : -1;
}

}  // namespace SDK
