#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

#include "feature_sentrel/SentrelBackupTask.h"
#include "feature_sentrel/backup/BackupDirectory.h"
#include "fixtures/FakeTasks.h"
#include "fixtures/Installation.h"
#include "progress/BackupProgress.h"
#include "status/SentrelStatus.h"
#include "support/FileSizeLimit.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Engine::BackupProgress;
using Engine::SentrelUtils;
using test::TempDir;

constexpr uid_t kSiteUser = 33;

/// A process that runs an action and then waits until it is destroyed.
class OtherProcess {
  public:
    /// `action` returns true on success.
    explicit OtherProcess(const std::function<bool()>& action) {
        int ready[2] = {-1, -1};
        if (::pipe(ready) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            const char answer = action() ? 'y' : 'n';
            if (::write(ready[1], &answer, 1) != 1) ::_exit(1);
            for (;;) ::pause();
        }
        ::close(ready[1]);
        char answer = 'n';
        done_ = ::read(ready[0], &answer, 1) == 1 && answer == 'y';
        ::close(ready[0]);
    }
    ~OtherProcess() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    bool HasDone() const { return done_; }

  private:
    pid_t pid_ = -1;
    bool done_ = false;
};

/// Runs `action` as the site's user and returns its result.
bool AsSiteUser(const std::function<bool()>& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        const bool changed = ::setgid(kSiteUser) == 0 && ::setuid(kSiteUser) == 0;
        ::_exit(changed && action() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// A site that an attacker has prepared before the backup, and the real rsync.
class OpenBackup : public ::testing::Test {
  protected:
    OpenBackup() {
        install_.UseRealRsync();
        SDK::ExecuteCmdUtils::SetProgramEnvironment(
            install_.dir.Path("bin/rsync"),
            {"LD_PRELOAD=" SENTREL_MODULE_DIR "/../lib/librsync_preload.so"});
        rule_ = Rule("site");
        for (const char* name : {"index.html", "sub/page.html", "zz/last.html"}) {
            data_.Write(std::string("site/") + name, std::string("good ") + name);
        }
        data_.Write("site/uploads/user.png", "png");
        data_.Write("site/app.log", "log");
        rule_.ignored_subdir = {"uploads"};
        rule_.ignored_postfix = {".log"};
        utils_->dir_rules = {rule_};
    }
    ~OpenBackup() override {
        SDK::ExecuteCmdUtils::SetProgramEnvironment(install_.dir.Path("bin/rsync"), {});
    }

    Engine::SentrelDirRule Rule(const std::string& name) const {
        Engine::SentrelDirRule rule;
        rule.auto_restore = true;
        rule.filepath = rule.real_path = data_.Path(name) + "/";
        rule.backup_path = data_.Path("backup-" + name);
        return rule;
    }
    std::string Site(const std::string& name) const { return rule_.real_path + name; }
    std::string Copy(const std::string& name) const { return rule_.backup_path + Site(name); }
    bool IsOpen(const std::string& name) const {
        return install_.state.progress.IsOpen(rule_, Site(name));
    }
    /// Waits for the next tick of the file system's clock, so that all files are older than a round
    /// that begins afterwards.
    void AwaitClockTick() const {
        struct stat before {};
        const std::string probe = data_.Write("probe", "");
        ::stat(probe.c_str(), &before);
        EXPECT_TRUE(test::WaitFor(
            [&] {
                std::timespec now{};
                ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
                return std::tie(now.tv_sec, now.tv_nsec) >
                       std::tie(before.st_ctim.tv_sec, before.st_ctim.tv_nsec);
            },
            5s));
    }
    void BackUp() {
        AwaitClockTick();
        task_.Run();
    }
    /// A process with a lease of the file, which rsync cannot open therefore.
    std::unique_ptr<OtherProcess> Lease(const std::string& name) const {
        return std::make_unique<OtherProcess>([&] {
            std::signal(SIGIO, SIG_IGN);
            const int file = ::open(Site(name).c_str(), O_RDWR | O_CLOEXEC);
            return file >= 0 && ::fcntl(file, F_SETLEASE, F_WRLCK) == 0;
        });
    }
    /// All other files of the site have their copies, and no backup is pending.
    void ExpectTheRestComplete() {
        EXPECT_TRUE(install_.state.progress.IsComplete(rule_));
        EXPECT_FALSE(utils_->local_backup_pending);
        for (const char* name : {"index.html", "sub/page.html", "zz/last.html"}) {
            struct stat live {};
            struct stat copy {};
            ASSERT_EQ(::lstat(Site(name).c_str(), &live), 0);
            ASSERT_EQ(::lstat(Copy(name).c_str(), &copy), 0) << name;
            EXPECT_EQ(TempDir::Read(Copy(name)), std::string("good ") + name);
            EXPECT_EQ(copy.st_mode, live.st_mode);
            EXPECT_EQ(copy.st_uid, live.st_uid);
            EXPECT_EQ(copy.st_mtim.tv_sec, live.st_mtim.tv_sec);
            EXPECT_FALSE(IsOpen(name));
        }
        EXPECT_FALSE(fs::exists(Copy("uploads")) || fs::exists(Copy("app.log")));
        struct stat live {};
        struct stat copy {};
        EXPECT_EQ(::lstat(Site("sub").c_str(), &live), 0);
        EXPECT_EQ(::lstat(Copy("sub").c_str(), &copy), 0);
        EXPECT_EQ(copy.st_mode, live.st_mode);
        EXPECT_EQ(copy.st_mtim.tv_sec, live.st_mtim.tv_sec);
    }
    /// The texts of all alarms.
    std::vector<std::string> Alarms() const {
        std::vector<std::string> texts;
        for (const auto& seen : running_.fakes->data.Seen()) {
            Json::Value alarm;
            SDK::JsonUtils::ParseJsonStr(seen.body.data(), seen.body.size(), alarm);
            texts.push_back(alarm["file_info"][0]["diff"].asString());
        }
        return texts;
    }
    void ExpectOneAlarmNaming(const std::string& name) const {
        const std::vector<std::string> alarms = Alarms();
        ASSERT_EQ(alarms.size(), 1U);
        EXPECT_NE(alarms[0].find(Site(name)), std::string::npos) << alarms[0];
    }
    Json::Value OpenInStatus() {
        install_.state.status.PublishPaths({{"id", rule_}});
        const Json::Value status = install_.state.status.ToJson(Json::Value(), {});
        return status["protected_paths"][0]["open_objects"];
    }
    void UseRsyncThat(const std::string& body) const {
        fs::remove(install_.dir.Path("bin/rsync"));
        install_.WriteScript("bin/rsync", body);
    }
    void RetryNow() {
        install_.state.progress.RetrySoon();
        task_.Run();
    }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    test::RunningEngine running_{install_.log};
    test::TempDir data_;
    Engine::SentrelDirRule rule_;
    Engine::SentrelBackupTask task_{install_.state};
};

TEST_F(OpenBackup, LeasedFile_IsOpenAndCopiedLater) {
    data_.Write("site/aa-leased.php", "shell");
    auto holder = Lease("aa-leased.php");
    if (!holder->HasDone()) GTEST_SKIP() << "no leases on this file system";
    BackUp();
    ExpectTheRestComplete();
    EXPECT_TRUE(IsOpen("aa-leased.php"));
    EXPECT_FALSE(fs::exists(Copy("aa-leased.php")));
    ExpectOneAlarmNaming("aa-leased.php");
    EXPECT_EQ(OpenInStatus()["count"].asInt(), 1);
    EXPECT_EQ(OpenInStatus()["examples"][0]["path"], Site("aa-leased.php"));

    // A change meanwhile does not become the good state.
    data_.Write("site/index.html", "defaced");
    RetryNow();
    EXPECT_TRUE(IsOpen("aa-leased.php"));
    EXPECT_EQ(TempDir::Read(Copy("index.html")), "good index.html");
    holder.reset();
    RetryNow();
    EXPECT_FALSE(IsOpen("aa-leased.php"));
    EXPECT_EQ(TempDir::Read(Copy("aa-leased.php")), "shell");
    EXPECT_EQ(TempDir::Read(Copy("index.html")), "good index.html");
    EXPECT_EQ(OpenInStatus()["count"].asInt(), 0);
    EXPECT_EQ(Alarms().size(), 1U);
}

TEST_F(OpenBackup, ChangedOpenObject_StaysOpenAndIsNotCopied) {
    data_.Write("site/aa-leased.php", "shell");
    auto holder = Lease("aa-leased.php");
    if (!holder->HasDone()) GTEST_SKIP() << "no leases on this file system";
    BackUp();
    holder.reset();
    AwaitClockTick();
    data_.Write("site/aa-leased.php", "worse");
    RetryNow();
    EXPECT_TRUE(IsOpen("aa-leased.php"));
    EXPECT_FALSE(fs::exists(Copy("aa-leased.php")));
    fs::remove(Site("aa-leased.php"));
    RetryNow();
    EXPECT_FALSE(IsOpen("aa-leased.php"));  // a new object there is foreign
}

TEST_F(OpenBackup, TooLongPaths_AreOpenAsOneDirectory) {
    const std::string name(200, 'd');
    int at = ::open(rule_.real_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int depth = 0; depth < 25; ++depth) {
        ASSERT_EQ(::mkdirat(at, name.c_str(), 0755), 0);
        const int next = ::openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(at);
        at = next;
    }
    ::close(::openat(at, "shell.php", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ::close(at);
    BackUp();
    ExpectTheRestComplete();
    EXPECT_FALSE(IsOpen(name));  // copied as far as paths go
    const Json::Value open = OpenInStatus();
    EXPECT_EQ(open["count"].asInt(), 1);
    std::string deepest;
    for (int depth = 0; depth < 25; ++depth) deepest += name + "/";
    EXPECT_TRUE(IsOpen(deepest + "shell.php"));
    ExpectOneAlarmNaming(name);
    for (const std::string& alarm : Alarms()) EXPECT_LT(alarm.size(), 4096U);
}

TEST_F(OpenBackup, HugeSparseFile_IsOpenAlthoughRsyncEndsAtIt) {
    const int huge = ::open(Site("!huge.iso").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const bool is_made = ::ftruncate(huge, 10'000'000'000'000) == 0;
    ::close(huge);
    if (!is_made) GTEST_SKIP() << "no files of this size here";
    ::chmod(Site("zz/last.html").c_str(), 0600);
    {
        const test::FileSizeLimit limit(1024L * 1024);
        BackUp();
    }
    ExpectTheRestComplete();
    EXPECT_TRUE(IsOpen("!huge.iso"));
    ExpectOneAlarmNaming("!huge.iso");
}

TEST_F(OpenBackup, ObjectsChangedDuringTheRound_AreNeitherCopiedNorOpen) {
    data_.Write("site/early.txt", "early");
    UseRsyncThat("echo new >" + Site("vanishing.php") + "; echo more >>" + Site("early.txt") +
                 "; mkdir " + Site("newdir") + "; exit 24\n");
    fs::create_directories(Copy(""));
    BackUp();
    ExpectTheRestComplete();
    for (const char* name : {"vanishing.php", "early.txt", "newdir"}) {
        EXPECT_FALSE(IsOpen(name)) << name;
        EXPECT_FALSE(fs::exists(Copy(name))) << name;
    }
    EXPECT_TRUE(Alarms().empty());
}

TEST_F(OpenBackup, ObjectsDeletedBeforeTheRound_LoseTheirCopies) {
    data_.Write("site/old/gone.html", "gone");
    data_.Write("site/young/gone.html", "gone");
    data_.Write("site/changed", "a file");
    BackUp();
    ASSERT_TRUE(fs::exists(Copy("old/gone.html")));
    fs::remove(Site("old/gone.html"));
    fs::remove(Site("changed"));
    data_.Write("site/changed/page.html", "now a directory");
    utils_->local_backup_pending = true;
    install_.state.progress.Restart();
    UseRsyncThat("rm " + Site("young/gone.html") + "; exit 11\n");
    BackUp();
    ExpectTheRestComplete();
    EXPECT_FALSE(fs::exists(Copy("old/gone.html")));
    EXPECT_TRUE(fs::exists(Copy("young/gone.html")));
    EXPECT_EQ(TempDir::Read(Copy("changed/page.html")), "now a directory");
}

TEST_F(OpenBackup, FailedRule_DoesNotCauseOtherRulesToBeCopiedAgain) {
    utils_->dir_rules.push_back(Rule("missing"));
    BackUp();
    EXPECT_TRUE(install_.state.progress.IsComplete(rule_));
    EXPECT_TRUE(utils_->local_backup_pending);
    data_.Write("site/index.html", "defaced!");
    task_.Run();
    EXPECT_EQ(TempDir::Read(Copy("index.html")), "good index.html");
    EXPECT_TRUE(utils_->local_backup_pending);
    data_.Write("missing/page.html", "there now");
    task_.Run();
    EXPECT_FALSE(utils_->local_backup_pending);
    EXPECT_EQ(TempDir::Read(Copy("index.html")), "good index.html");
}

TEST_F(OpenBackup, Copies_AreNotReachableForTheOwnerOfThePages) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    ::chmod(data_.Path().c_str(), 0755);
    for (const char* name : {"", "index.html", "sub"}) {
        ASSERT_EQ(::chown(Site(name).c_str(), kSiteUser, kSiteUser), 0);
    }
    const auto can_change_copy = [&] {
        return AsSiteUser([&] {
            return ::open(Copy("index.html").c_str(), O_WRONLY) >= 0 ||
                   ::rename(Copy("index.html").c_str(), Copy("sub/other").c_str()) == 0;
        });
    };
    // Created with its parents, or created by an administrator with mode 0755.
    const std::string plain = rule_.backup_path;
    for (const std::string& place : {plain + "/made/deep", plain + "/left/open"}) {
        if (place != plain + "/made/deep") {
            ::chmod(plain.c_str(), 0755);
            fs::create_directories(place);
            ::chmod(place.c_str(), 0755);
        }
        rule_.backup_path = place;
        utils_->dir_rules = {rule_};
        utils_->local_backup_pending = true;
        install_.state.progress.Restart();
        BackUp();
        ExpectTheRestComplete();
        EXPECT_FALSE(can_change_copy());
        struct stat info {};
        EXPECT_EQ(::stat(place.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & ALLPERMS, 0700U);
        EXPECT_EQ(info.st_uid, 0U);
    }
    ::chmod(rule_.backup_path.c_str(), 0755);
    EXPECT_TRUE(can_change_copy()) << "the check above detects nothing";
}

TEST_F(OpenBackup, BackupPathInUseByOthers_IsRejectedAndNotChanged) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    ::chmod(data_.Path().c_str(), 0755);
    const auto refuse = [&](const std::string& path) {
        struct stat before {};
        struct stat after {};
        EXPECT_EQ(::stat(path.c_str(), &before), 0) << path;
        const std::string why = Engine::BackupDirectory::Prepare(path, utils_->dir_rules);
        EXPECT_EQ(::stat(path.c_str(), &after), 0);
        EXPECT_EQ(before.st_mode, after.st_mode) << path;
        return why;
    };
    data_.Write("shared/not-a-copy/file", "of others");
    ::chmod(data_.Path("shared").c_str(), 0755);
    EXPECT_NE(refuse(data_.Path("shared")).find("more than copies"), std::string::npos);
    EXPECT_NE(refuse(data_.Path()), "");  // the site lies there
    EXPECT_NE(refuse("/"), "");
    fs::create_directory(data_.Path("foreign"));
    ASSERT_EQ(::chown(data_.Path("foreign").c_str(), kSiteUser, kSiteUser), 0);
    EXPECT_NE(refuse(data_.Path("foreign")), "");
    fs::create_directory(data_.Path("foreign/ours"));
    EXPECT_NE(refuse(data_.Path("foreign/ours")), "");
    fs::create_directory(data_.Path("open"));
    ::chmod(data_.Path("open").c_str(), 0777);
    rule_.backup_path = data_.Path("open");
    utils_->dir_rules = {rule_};
    BackUp();
    EXPECT_FALSE(install_.state.progress.IsComplete(rule_));
    EXPECT_TRUE(fs::is_empty(data_.Path("open")));
    EXPECT_EQ(
        install_.Errors("Backup (" + rule_.real_path + ") to (" + rule_.backup_path + ") faild."),
        1);
}

}  // namespace
