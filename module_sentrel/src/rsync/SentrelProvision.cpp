// Provides bin/rsync. It must not judge the URL or the digest: the policy gives them, the download
// library checks them. Tasks call it from their own threads, at the same time too; the lock is held
// only while the remembered file is read or written, never during a download.
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/net/HttpUtils.h>
#include <unistd.h>

#include "base/ModuleLogger.h"
#include "rsync/RsyncVersion.h"
#include "utils/SentrelUtils.h"

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

// The tasks ask at about the same time, and for a moment a file just fetched cannot be run: whoever
// comes meanwhile waits and takes over what became of it.
bool SentrelUtils::DownloadRsync() {
    std::unique_lock<std::mutex> lock(provision_mutex_, std::try_to_lock);
    if (lock.owns_lock()) return rsync_is_usable_ = ProvideRsync();
    lock.lock();
    if (rsync_is_usable_) return rsync_is_usable_ = ProvideRsync();
    SDK_LOG(GetLogger(), PRIO_ERROR, "download file failed, url=%s, hash=%s.", rsync_url,
            rsync_hash);
    return false;
}

bool SentrelUtils::ProvideRsync() {
    const std::string path = SDK::PathUtils::GetInstallationPath() + "bin/rsync";
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && IsInstalledRsync(info)) {
        NoteRsyncVersion(path, false);
        return true;
    }
    // The comparison covers the file type too, which 0500 has not: the first call in a process
    // fetches the executable again, and a file that others may have replaced is never trusted.
    if (IsFileAttrEqual(path, kOwnerReadExecute, 0, 0) && IsFileHashEqual(path, rsync_hash)) {
        return true;
    }
    if (SDK::HttpUtils::GetInstance()->Download(rsync_url, path, rsync_hash, "", "") != 0) {
        SDK_LOG(GetLogger(), PRIO_ERROR, "download file failed, url=%s, hash=%s.", rsync_url,
                rsync_hash);
        SDK_LOG(GetLogger(), PRIO_WARNING, "rsync download: %s",
                SDK::HttpUtils::GetInstance()->LastError());
        return false;
    }
    if (GetLogger() == nullptr) return false;
    SDK_LOG(GetLogger(), PRIO_INFORMATION, "download file success, url=%s, hash=%s.", rsync_url,
            rsync_hash);
    LockDown(path);
    if (!RememberInstalledRsync(path)) return false;
    NoteRsyncVersion(path, true);
    return true;
}

bool SentrelUtils::IsInstalledRsync(const struct stat& info) const {
    return info.st_uid == installed_.st_uid && info.st_gid == installed_.st_gid &&
           info.st_mode == installed_.st_mode && info.st_size == installed_.st_size &&
           info.st_ino == installed_.st_ino && info.st_mtime == installed_.st_mtime;
}

bool SentrelUtils::RememberInstalledRsync(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return false;
    installed_ = info;
    return true;
}

}  // namespace Engine
