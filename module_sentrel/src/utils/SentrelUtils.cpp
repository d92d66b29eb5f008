// Owns the settings of the module. It must not parse policies (the policy classes do) nor carry out
// what it forwards. Any thread; see the header for the writers of the settings.
#include "utils/SentrelUtils.h"

#include <sdk/files/FileUtils.h>
#include <sdk/log/LoggerUtils.h>
#include <sys/stat.h>

#include "base/FileComparison.h"
#include "base/ModuleLogger.h"
#include "utils/ModuleReports.h"

namespace Engine {

namespace {

std::string& LastError() {
    thread_local std::string text;
    return text;
}

bool NoteResult(const CopyResult& result) {
    LastError() = result.error;
    return result.is_done;
}

}  // namespace

SentrelUtils* SentrelUtils::GetInstance() {
    static SentrelUtils instance;
    return &instance;
}

void SentrelUtils::Init() {
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
    copy_idle_period = RsyncCopies::kIdlePeriod;
    watch_limit_period = WatchLimit::kPeriod;
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
    return HasDigest(path, hash);
}

bool SentrelUtils::IsFileAttrEqual(const std::string& path, unsigned int mode, unsigned int uid,
                                   unsigned int gid) const {
    return HasAttributes(path, mode, uid, gid);
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

bool SentrelUtils::DownloadRsync() {
    return provision_.Provide(rsync_url, rsync_hash);
}

bool SentrelUtils::DoRsyncLocal(const std::string& src, const std::string& dst,
                                const std::list<std::string>& ignored_postfix,
                                const std::list<std::string>& ignored_subdir, rsync_mode mode) {
    return NoteResult(RsyncCopies::CopyLocally(src, dst, ignored_postfix, ignored_subdir, mode,
                                               copy_idle_period));
}

bool SentrelUtils::DoRsyncRemote(const std::string& src, [[maybe_unused]] rsync_mode mode) {
    return NoteResult(RsyncCopies::Push(src, backup_addr, backup_port));
}

std::string SentrelUtils::LastCopyError() const {
    return LastError();
}

bool SentrelUtils::RunRsyncDaemon(const std::string& conf_path) {
    return RsyncDaemon::Start(install_path, conf_path, backupserver_path);
}

bool SentrelUtils::GetRsyncRunningPid(const std::string& pid_file, int& pid) {
    return RsyncDaemon::GetRunningPid(pid_file, pid);
}

bool SentrelUtils::DoStopRsyncDeamon() {
    return daemon_.Stop(install_path);
}

void SentrelUtils::SendStatusMsg(const std::string& feature, const std::string& task,
                                 const std::string& status) {
    ModuleReports::SendStatus(feature, task, status);
}

void SentrelUtils::SendExceptionMsg(const std::string& feature, const std::string& exception) {
    ModuleReports::SendException(feature, exception);
}

bool SentrelUtils::SetInotifyMaxUserWatches() {
    return WatchLimit::Raise(watch_limit_period);
}

Poco::Logger* ModuleLogger() {
    return SentrelUtils::GetInstance()->GetLogger();
}

}  // namespace Engine
