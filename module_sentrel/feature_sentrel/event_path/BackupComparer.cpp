// Compares changed files with their backup copies. It must not write, nor decide what is done about
// a deviation (the inotify task does). Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include "feature_sentrel/event_path/BackupComparer.h"

#include <fcntl.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/DirectoryListing.h"
#include "base/FileComparison.h"
#include "base/ModuleLogger.h"

namespace Engine {

namespace {

bool DigestOf(const SDK::PathAnchor::Entry& entry, std::string& digest) {
    return entry.IsOpen() && SDK::FileUtils::GetFileSha256(entry.directory.Get(), entry.name,
                                                           digest, kDigestLimit) == 0;
}

}  // namespace

bool BackupComparer::Describe(const std::string& path, const std::string& copy_path, bool& exists,
                              BackupFileInfo& info) const {
    struct stat found {};
    if (rule_->StatCopy(path, found) != 0) {
        const int error = errno;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "file:%s  info:%d", copy_path, error);
        return true;
    }
    exists = true;
    info.size = found.st_size;
    info.mtime = found.st_mtime;
    info.mode = SDK::FileUtils::StModeToStr(found.st_mode);
    info.uid = found.st_uid;
    info.gid = found.st_gid;
    if (!S_ISREG(found.st_mode)) return true;
    const SDK::PathAnchor::Entry copy = rule_->Copy(path);
    if (copy.IsOpen() && ::faccessat(copy.directory.Get(), copy.name.c_str(), R_OK, 0) == 0) {
        return true;
    }
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file %s sha256 failed.",
            SDK::PathUtils::WithoutTrailingSlash(copy_path));
    return false;
}

Deviation BackupComparer::Compare(const std::string& path, const BackupFileInfo& info) const {
    struct stat live {};
    if (rule_->StatLive(path, live) != 0) {
        return errno == ENOENT ? Deviation::kGone : Deviation::kUnreachable;
    }
    // The file system decides the size of a directory; no restore can make it equal.
    if (!S_ISDIR(live.st_mode) && live.st_size != info.size) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s size (%u) not matched with (%u). ", path,
                static_cast<unsigned int>(live.st_size), static_cast<unsigned int>(info.size));
        return Deviation::kSize;
    }
    if (live.st_mtime != info.mtime) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s mtime (%d) not matched with (%d). ", path,
                static_cast<int>(live.st_mtime), static_cast<int>(info.mtime));
        return Deviation::kTime;
    }
    const std::string mode = SDK::FileUtils::StModeToStr(live.st_mode);
    if (mode != info.mode) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s attr (%s) not matched with (%s). ", path, mode,
                info.mode);
        return Deviation::kMode;
    }
    return S_ISDIR(live.st_mode) ? CompareOwner(path, live, info)
                                 : CompareContent(path, live, info);
}

/// The last check: size or time show most changes, and a large page must not wait for digests.
Deviation BackupComparer::CompareContent(const std::string& path, const struct stat& live,
                                         const BackupFileInfo& info) const {
    std::string digest;
    std::string copy_digest;
    DigestOf(rule_->Live(path), digest);  // unreadable: an empty digest
    if (!DigestOf(rule_->Copy(path), copy_digest)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file %s sha256 failed.", path);
    } else if (digest == copy_digest) {
        return CompareOwner(path, live, info);
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s sha256 (%s) not matched with (%s). ", path, digest,
            copy_digest);
    return Deviation::kContent;
}

// Without it a chown would pass. When the agent is not root it can neither keep nor restore owners:
// its copies are its own.
Deviation BackupComparer::CompareOwner(const std::string& path, const struct stat& live,
                                       const BackupFileInfo& info) const {
    if (::geteuid() != 0 || (live.st_uid == info.uid && live.st_gid == info.gid)) {
        return Deviation::kNone;
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s owner (%u:%u) not matched with (%u:%u). ", path,
            live.st_uid, live.st_gid, info.uid, info.gid);
    return Deviation::kOwner;
}

bool BackupComparer::LacksContent(const std::string& path,
                                  const std::function<bool(const std::string&)>& ignored) const {
    const std::string directory = SDK::PathUtils::WithoutTrailingSlash(path) + "/";
    const SDK::FileDescriptor copy = rule_->OpenCopyDirectory(path);
    const SDK::FileDescriptor live = rule_->OpenLiveDirectory(path);
    if (!copy.IsOpen() || !live.IsOpen()) return false;
    const auto lacks = [&](const std::string& name) {
        struct stat found {};
        if (name.back() == '.') return false;
        if (::fstatat(live.Get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ||
            errno != ENOENT ||
            ::fstatat(copy.Get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            return false;
        }
        const std::string missing = directory + name;
        if (ignored(S_ISDIR(found.st_mode) ? missing + "/" : missing)) return false;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Dir %s lacks %s. ", path, missing);
        return true;
    };
    const std::vector<std::string> names = NamesIn(copy.Get());
    return std::any_of(names.begin(), names.end(), lacks);
}

}  // namespace Engine
