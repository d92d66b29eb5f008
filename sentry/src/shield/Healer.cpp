// Owns the steps that put a page right. Must not decide whether a page is to be healed (Judge
// does). Workers' threads: its own opens pass, since the reader lets this process through.
#include "shield/Healer.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "shield/Content.h"

namespace Sentry {

namespace {

constexpr int kNoWait = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int kTries = 8;
constexpr mode_t kPermissions = 07777;

std::string Why(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

/// The copy's content, if it is what was approved; `times` are the copy's.
std::string ReadCopy(const ShieldRule& rule, const std::string& below,
                     const Baseline::ManifestEntry& approved, std::string& content,
                     struct stat& info) {
    const SDK::PathAnchor::Entry entry = rule.copies->OpenParent(rule.real_path.substr(1) + below);
    const SDK::FileDescriptor copy(
        entry.IsOpen() ? ::openat(entry.directory.Get(), entry.name.c_str(), O_RDONLY | kNoWait)
                       : -1);
    if (!copy.IsOpen() || ::fstat(copy.Get(), &info) != 0 ||
        !ReadWhole(copy.Get(), approved.size, content)) {
        return Why("its copy cannot be read");
    }
    return IsContent(approved, content) ? "" : "its copy is not what was approved";
}

/// The same file for writing. Its own name first: the mount through which it was opened may be
/// read-only.
SDK::FileDescriptor OpenForWriting(const SDK::PathAnchor& root, const std::string& below, int file,
                                   const struct stat& info) {
    const SDK::PathAnchor::Entry entry = root.OpenParent(below, SDK::MountPoints::kRefused);
    SDK::FileDescriptor writer(
        entry.IsOpen() ? ::openat(entry.directory.Get(), entry.name.c_str(), O_WRONLY | kNoWait)
                       : -1);
    struct stat found {};
    if (writer.IsOpen() && ::fstat(writer.Get(), &found) == 0 && found.st_dev == info.st_dev &&
        found.st_ino == info.st_ino) {
        return writer;
    }
    // It was renamed or unlinked since it was opened.
    writer.Reset(::open(("/proc/self/fd/" + std::to_string(file)).c_str(),
                        O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return writer;
}

void KeepContent(int file, std::uint64_t most_bytes, const Healer::Keep& keep) {
    std::string content;
    const SDK::FileDescriptor memory(::memfd_create("tampered", MFD_CLOEXEC));
    if (!memory.IsOpen() || !ReadWhole(file, most_bytes, content)) return keep(-1);
    const bool is_written = ::pwrite(memory.Get(), content.data(), content.size(), 0) ==
                            static_cast<ssize_t>(content.size());
    keep(is_written ? memory.Get() : -1);
}

bool Write(int writer, const std::string& content, const struct stat& info) {
    // With no room for all of it the page is left as it is.
    if (!content.empty() &&
        ::fallocate(writer, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(content.size())) != 0 &&
        errno != EOPNOTSUPP) {
        return false;
    }
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t some = ::pwrite(writer, content.data() + done, content.size() - done,
                                      static_cast<off_t>(done));
        if (some < 0 && errno == EINTR) continue;
        if (some <= 0) return false;
        done += static_cast<std::size_t>(some);
    }
    const auto size = static_cast<off_t>(content.size());
    return info.st_size == size || ::ftruncate(writer, size) == 0;
}

/// What the agent would find different otherwise. It restores the rest.
void SetAttributes(int writer, const Baseline::ManifestEntry& approved, const struct stat& info,
                   const struct stat& copy) {
    if (info.st_uid != approved.user || info.st_gid != approved.group) {
        static_cast<void>(::fchown(writer, approved.user, approved.group));
    }
    if ((info.st_mode & kPermissions) != (approved.mode & kPermissions)) {
        ::fchmod(writer, approved.mode & kPermissions);
    }
    const timespec times[] = {info.st_atim, copy.st_mtim};
    ::futimens(writer, times);
}

}  // namespace

std::string Healer::Heal(const ShieldRule& rule, const SDK::PathAnchor& root,
                         const std::string& below, const Baseline::ManifestEntry& approved,
                         int file, std::uint64_t most_bytes, const Keep& keep) {
    struct stat info {};
    if (::fstat(file, &info) != 0) return Why("it cannot be read");
    if (!S_ISREG(info.st_mode) || info.st_nlink > 1) return "it has other names";
    if (approved.size > most_bytes) return "it is too large";
    std::string content;
    struct stat copy {};
    std::string problem = ReadCopy(rule, below, approved, content, copy);
    if (!problem.empty()) return problem;
    const SDK::FileDescriptor writer = OpenForWriting(root, below, file, info);
    if (!writer.IsOpen()) return Why("it cannot be written");
    KeepContent(file, most_bytes, keep);
    for (int i = 0; i < kTries; ++i) {
        if (::fstat(file, &info) != 0 || !Write(writer.Get(), content, info)) {
            return Why("it cannot be written");
        }
        SetAttributes(writer.Get(), approved, info, copy);
        // Another process may write at the same time.
        if (HasContent(file, approved)) return "";
    }
    return "it changes while it is put right";
}

}  // namespace Sentry
