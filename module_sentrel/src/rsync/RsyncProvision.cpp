// Owns what is remembered of the installed bin/rsync. It must not judge the URL or the digest: the
// policy gives them, the download library checks them. Tasks call it from their own threads, also
// at the same time; a second caller waits for the first, which may download.
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include "rsync/RsyncProvision.h"

#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/net/HttpUtils.h>
#include <unistd.h>

#include "base/FileComparison.h"
#include "base/ModuleLogger.h"
#include "base/RsyncPaths.h"

namespace Engine {

namespace {

constexpr mode_t kOwnerReadExecute = 0500;

void LockDown(const std::string& path) {
    const int mode_result = ::chmod(path.c_str(), kOwnerReadExecute);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "chmod(%s, 500) -> %d.", path, mode_result);
    const int owner_result = ::chown(path.c_str(), 0, 0);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "chown(%s, root:root) -> %d.", path, owner_result);
}

}  // namespace

// A file that was just fetched cannot be run for a moment. So a second caller waits, and takes a
// failure of the first for its own.
bool RsyncProvision::Provide(const std::string& url, const std::string& hash) {
    std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
    if (lock.owns_lock()) return is_usable_ = Fetch(url, hash);
    lock.lock();
    if (is_usable_) return is_usable_ = Fetch(url, hash);
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "download file failed, url=%s, hash=%s.", url, hash);
    return false;
}

bool RsyncProvision::Fetch(const std::string& url, const std::string& hash) {
    const std::string path = RsyncPaths::Program(SDK::PathUtils::GetInstallationPath());
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && IsRemembered(info)) {
        installed_.Examine(path, false);
        return true;
    }
    // The comparison covers the file type too, which 0500 lacks. So the first call in a process
    // always fetches the executable again: others may have replaced the file.
    if (HasAttributes(path, kOwnerReadExecute, 0, 0) && HasDigest(path, hash)) return true;
    if (SDK::HttpUtils::GetInstance()->Download(url, path, hash, "", "") != 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "download file failed, url=%s, hash=%s.", url, hash);
        SDK_LOG(ModuleLogger(), PRIO_WARNING, "rsync download: %s",
                SDK::HttpUtils::GetInstance()->LastError());
        return false;
    }
    if (ModuleLogger() == nullptr) return false;
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "download file success, url=%s, hash=%s.", url, hash);
    LockDown(path);
    if (!Remember(path)) return false;
    installed_.Examine(path, true);
    return true;
}

bool RsyncProvision::IsRemembered(const struct stat& info) const {
    return info.st_uid == remembered_.st_uid && info.st_gid == remembered_.st_gid &&
           info.st_mode == remembered_.st_mode && info.st_size == remembered_.st_size &&
           info.st_ino == remembered_.st_ino && info.st_mtime == remembered_.st_mtime;
}

bool RsyncProvision::Remember(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return false;
    remembered_ = info;
    return true;
}

}  // namespace Engine
