// Owns the settings of the module and compares files. It must not parse policies (the policy
// classes do) nor run rsync (SentrelRsync.cpp). Any thread; see the header for who writes what.
#include "utils/SentrelUtils.h"

#include <sdk/files/FileUtils.h>
#include <sdk/log/LoggerUtils.h>

#include "base/ModuleLogger.h"
#include "progress/BackupProgress.h"

namespace Engine {

SentrelUtils* SentrelUtils::GetInstance() {
    static SentrelUtils instance;
    return &instance;
}

void SentrelUtils::Init() {
    BackupProgress::Instance().Restart();
    is_run = true;
    local_backup_pending = true;
    remote_backup_pending = true;
    distime_enable = false;
    backup_type = 0;
    backup_port = 0;
    backup_addr.clear();
    other_rule_prefixes.clear();
    other_rule_suffixes.clear();
    dir_rules.clear();
    minute_enabled.fill(true);
    weekday_enabled.fill(true);
    copy_idle_period = kCopyIdlePeriod;
    watch_limit_period = kWatchLimitPeriod;
}

Poco::Logger* SentrelUtils::GetLogger() {
    Poco::Logger* known = logger.load(std::memory_order_acquire);
    if (known == nullptr) {
        known = SDK::LoggerUtils::GetInstance()->GetModuleLogger("sentrel_module", 0);
        logger.store(known, std::memory_order_release);
    }
    return known;
}

bool SentrelUtils::IsFileHashEqual(const std::string& path, const std::string& hash) {
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(path, digest, kDigestLimit) != 0) return false;
    return digest == hash;
}

bool SentrelUtils::IsFileAttrEqual(const std::string& path, unsigned int mode, unsigned int uid,
                                   unsigned int gid) const {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return false;
    return info.st_mode == mode && info.st_uid == uid && info.st_gid == gid;
}

bool SentrelUtils::IsFileFullEqual(const std::string& a, const std::string& b) {
    struct stat info {};
    if (::lstat(a.c_str(), &info) != 0) return false;
    if (!IsFileAttrEqual(b, info.st_mode, info.st_uid, info.st_gid)) return false;
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(a, digest, kDigestLimit) != 0) return false;
    return IsFileHashEqual(b, digest);
}

bool SentrelUtils::IsLengthValid(unsigned int value, unsigned int min, unsigned int max) const {
    return min <= value && value <= max;
}

Poco::Logger* ModuleLogger() {
    return SentrelUtils::GetInstance()->GetLogger();
}

}  // namespace Engine
