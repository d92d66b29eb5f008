#include "walk/DirLister.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace Engine::FileNotify {

namespace {

// For file systems whose listings lack the type.
bool IsDirectoryAt(int dir_fd, const char* name) {
    struct stat status {};
    return ::fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

void AppendEntries(int dir_fd, const char* bytes, std::size_t size, DirListing& listing) {
    for (std::size_t at = 0; at < size;) {
        const auto* entry = reinterpret_cast<const dirent64*>(bytes + at);
        at += entry->d_reclen;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        const bool is_directory = entry->d_type == DT_UNKNOWN ? IsDirectoryAt(dir_fd, entry->d_name)
                                                              : entry->d_type == DT_DIR;
        (is_directory ? listing.directories : listing.others).Append(name);
    }
}

}  // namespace

void DirListing::Clear() {
    directories.Clear();
    others.Clear();
    is_snapshot = true;
}

int ListDirectory(int dir_fd, DirListing& listing, const std::function<void()>& drain_events) {
    listing.Clear();
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the kernel fills it
    alignas(dirent64) std::array<char, 64 * 1024> bytes;
    for (bool is_first = true;; is_first = false) {
        const long got = ::syscall(SYS_getdents64, dir_fd, bytes.data(), bytes.size());
        if (got < 0) return errno;
        if (got == 0) return 0;
        AppendEntries(dir_fd, bytes.data(), static_cast<std::size_t>(got), listing);
        if (is_first) continue;
        listing.is_snapshot = false;
        if (drain_events) drain_events();
    }
}

}  // namespace Engine::FileNotify
