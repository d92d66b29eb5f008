#pragma once

#include <Poco/Logger.h>
#include <Poco/Mutex.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Direction of a local copy.
enum rsync_mode : int {
    RSYNC_BACKUP = 0,   ///< the protected path into the backup directory, full path kept below it
    RSYNC_RESTORE = 1,  ///< the backup copy back over the protected path
};

constexpr long kDigestLimit = 10 * 1024 * 1024;  ///< bytes of a file that a digest covers
/// Values of `backup_type` with a meaning of their own; with any other only the local copy is made.
enum BackupType : int { kRemoteOnly = 1, kLocalAndRemote = 2, kRemoteByOthers = 3 };

/// An rsync within the host of which no process has done anything for so long is held up by
/// something that it opened, and is ended.
constexpr std::chrono::seconds kCopyIdlePeriod{15};

/// A sudo or sysctl that takes longer to raise the watch limit is ended.
constexpr std::chrono::seconds kWatchLimitPeriod{10};

constexpr int kMinutesPerDay = 1440;
constexpr int kDaysPerWeek = 7;

/// The module's settings, its logger, and the operations that several of its parts share.
///
/// Settings are written by policy callbacks and read by tasks without a lock: the module's gate
/// keeps a callback apart from Init and Run of the tasks. The three run flags are written by tasks
/// too, under `mutex`. Operations may be called from any thread; failures are results and logged.
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

    // The rsync executable (SentrelProvision.cpp, SentrelRsync.cpp).

    /// Makes sure that bin/rsync is the one that the policy names. Downloads, so it may block for
    /// as long as that takes. False when the download failed (the old file then stays) or the
    /// installed file cannot be examined.
    bool DownloadRsync();

    /// Copies `src` into the backup directory `dst`, or its backup copy below `dst` back. Blocks
    /// until rsync has ended, which takes as long as it goes on working; one that is held up is
    /// ended (`copy_idle_period`). Paths are put on the command line as they stand; where that
    /// line does not carry each of them as one word, rsync gets the words without the line.
    bool DoRsyncLocal(const std::string& src, const std::string& dst,
                      const std::list<std::string>& ignored_postfix,
                      const std::list<std::string>& ignored_subdir, rsync_mode mode);

    /// Pushes `src` to the backup server, whatever `mode` says. Blocks until rsync has ended.
    bool DoRsyncRemote(const std::string& src, rsync_mode mode);

    /// In words, why the calling thread's last copy failed; empty after a success.
    std::string LastCopyError() const;

    // The rsync daemon of a backup server (SentrelDaemon.cpp).

    /// Starts bin/rsync as a daemon with that configuration. Always true: whether the daemon lives
    /// is seen from its pid file at the next pass. Returns when rsync has detached.
    bool RunRsyncDaemon(const std::string& conf_path);
    /// True when the file names a live process. `pid` is set whenever the file could be read; a
    /// number that no process can have counts as 0.
    bool GetRsyncRunningPid(const std::string& pid_file, int& pid);
    /// True when the file names a live process that runs the rsync beside the file as a daemon, by
    /// its command line. `pid` as above. Reads no settings.
    bool GetDaemonPid(const std::string& pid_file, int& pid);
    /// Removes a pid file that does not name our daemon (GetDaemonPid). For the start of the
    /// module: after a restart of the machine the number may belong to any process, which must
    /// neither be killed nor be taken for the daemon. Reads no settings.
    void DropForeignPidFile();
    /// Kills the process that the pid file names and removes the file. True when nothing is left
    /// running. Blocks for up to 13 seconds; a policy's callback waits outside the module's gate.
    bool DoStopRsyncDeamon();

    /// A policy waits for the end of our daemon, outside the module's gate: nobody may start it
    /// now.
    std::atomic<bool> is_stopping_daemon{false};

    // Reports (SentrelReports.cpp).

    void SendStatusMsg(const std::string& feature, const std::string& task,
                       const std::string& status);
    /// Dropped silently when the agent has no command report task.
    void SendExceptionMsg(const std::string& feature, const std::string& exception);

    /// Raises the kernel's inotify watch limit for good; adds a line to /etc/sysctl.conf each time.
    /// False also when that takes longer than `watch_limit_period`; the command is then killed.
    bool SetInotifyMaxUserWatches();

    /// The local backup copies are this module's to make.
    bool MakesLocalBackup() const {
        return backup_type != kRemoteOnly && backup_type != kRemoteByOthers;
    }

    // Settings; who writes which is beside the policies.
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
    std::chrono::milliseconds copy_idle_period = kCopyIdlePeriod;
    std::chrono::milliseconds watch_limit_period = kWatchLimitPeriod;

  private:
    SentrelUtils() = default;
    ~SentrelUtils() = default;

    bool ProvideRsync();
    bool IsInstalledRsync(const struct stat& info) const;
    bool RememberInstalledRsync(const std::string& path);

    std::mutex provision_mutex_;  ///< held while bin/rsync is provided; guards what follows
    bool rsync_is_usable_ = true;
    struct stat installed_ {};  ///< bin/rsync right after the last successful download
};

}  // namespace Engine
