#pragma once

#include <Poco/Logger.h>
#include <Poco/Mutex.h>

#include <array>
#include <atomic>
#include <chrono>
#include <list>
#include <string>

#include "base/BackupType.h"
#include "base/SentrelDirRule.h"
#include "base/WorkClock.h"
#include "rsync/RsyncCopies.h"
#include "rsync/RsyncDaemon.h"
#include "rsync/RsyncProvision.h"
#include "utils/WatchLimit.h"

namespace Engine {

/// The module's settings and logger, and the operations that several of its parts share. It
/// compares files itself and forwards the rest: each of these operations is described with the
/// object that carries it out.
///
/// Policy callbacks write the settings, tasks read them without a lock: the module's gate keeps a
/// callback apart from Init and Run of the tasks. Tasks also write the three run flags, under
/// `mutex`. The operations are thread-safe; failures are results and logged.
class SentrelUtils {
  public:
    static SentrelUtils* GetInstance();

    /// Takes the settings back to their defaults; the logger, `monitor_only`, the rsync source and
    /// the strings of the backup server keep their values.
    void Init();

    /// The module's logger, fetched on first use; may be null.
    Poco::Logger* GetLogger();

    // Comparisons. False also when a file is missing or cannot be read; never logged.

    /// The file's digest is `hash`, byte for byte.
    bool IsFileHashEqual(const std::string& path, const std::string& hash);
    /// The whole st_mode, file type included, and the owner are equal. Links are not followed.
    bool IsFileAttrEqual(const std::string& path, unsigned int mode, unsigned int uid,
                         unsigned int gid) const;
    /// `b` has the mode, owner and content of `a`.
    bool IsFileFullEqual(const std::string& a, const std::string& b);
    bool IsLengthValid(unsigned int value, unsigned int min, unsigned int max) const;

    // The rsync executable: RsyncProvision and InstalledRsync.

    /// RsyncProvision::Provide with the URL and digest of the settings.
    bool DownloadRsync();
    InstalledRsync& Rsync() { return provision_.Installed(); }

    // Copies by rsync: RsyncCopies.

    /// RsyncCopies::CopyLocally, ended after `copy_idle_period` without progress.
    bool DoRsyncLocal(const std::string& src, const std::string& dst,
                      const std::list<std::string>& ignored_postfix,
                      const std::list<std::string>& ignored_subdir, rsync_mode mode);
    /// RsyncCopies::Push to the backup server of the settings, whatever `mode` says.
    bool DoRsyncRemote(const std::string& src, rsync_mode mode);
    /// In words, why the calling thread's last copy failed; empty after a success.
    std::string LastCopyError() const;

    // The rsync daemon of a backup server: RsyncDaemon, with `install_path`.

    bool RunRsyncDaemon(const std::string& conf_path);
    bool GetRsyncRunningPid(const std::string& pid_file, int& pid);
    bool DoStopRsyncDeamon();
    /// A policy waits for the end of our daemon: nobody may start it now.
    bool IsStoppingDaemon() const { return daemon_.IsStopping(); }

    // Reports: ModuleReports.

    void SendStatusMsg(const std::string& feature, const std::string& task,
                       const std::string& status);
    void SendExceptionMsg(const std::string& feature, const std::string& exception);

    /// WatchLimit::Raise within `watch_limit_period`.
    bool SetInotifyMaxUserWatches();

    /// This module makes the local backup copies.
    bool MakesLocalBackup() const { return MakesLocalCopies(backup_type); }

    // Settings. The policy classes write them.
    std::atomic<bool> is_run{false};  ///< protection is active at this minute
    std::atomic<bool> local_backup_pending{false};
    std::atomic<bool> remote_backup_pending{false};
    Poco::FastMutex mutex;  ///< held while one of the three flags above is written by a task
    int backup_type = 0;
    int backup_port = 0;  ///< 0: no port option
    std::string backup_addr;
    std::list<std::string> other_rule_prefixes;  ///< paths below these are left to other rules
    std::list<std::string> other_rule_suffixes;  ///< reserved
    std::array<bool, kMinutesPerDay> minute_enabled{};
    std::array<bool, kDaysPerWeek> weekday_enabled{};  ///< Sunday is 0
    std::list<SentrelDirRule> dir_rules;
    std::string rsync_url;
    std::string rsync_hash;
    bool monitor_only = false;
    bool distime_enable = false;
    bool diff_content = false;
    bool diff_attr = false;
    std::atomic<Poco::Logger*> logger{nullptr};
    int backupserver_port = 0;
    std::string backupserver_path;
    std::string backupserver_ip;
    std::string install_path;  ///< ends in "/"; refreshed by each policy
    // Only tests set these.
    std::chrono::milliseconds copy_idle_period = RsyncCopies::kIdlePeriod;
    std::chrono::milliseconds watch_limit_period = WatchLimit::kPeriod;

  private:
    SentrelUtils() = default;
    ~SentrelUtils() = default;

    RsyncProvision provision_;
    RsyncDaemon daemon_;
};

}  // namespace Engine
