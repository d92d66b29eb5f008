#include "base/FileComparison.h"

#include <sdk/files/FileUtils.h>
#include <sys/stat.h>

namespace Engine {

bool HasDigest(const std::string& path, const std::string& digest) {
    std::string found;
    return SDK::FileUtils::GetFileSha256(path, found, kDigestLimit) == 0 && found == digest;
}

bool HasAttributes(const std::string& path, mode_t mode, uid_t uid, gid_t gid) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && info.st_mode == mode && info.st_uid == uid &&
           info.st_gid == gid;
}

}  // namespace Engine
