#include <BackupProgress.h>
#include <SentrelInotifyTask.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <fcntl.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sdk/CommandInterrupter.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <utility>

#include "FakeTasks.h"
#include "Installation.h"
#include "support/WaitFor.h"

namespace {

namespace fs = std::filesystem;
using Engine::SentrelStatus;
using Engine::SentrelUtils;
using Poco::Message;

/// Runs on the thread of the task that it is sent to.
class Errand : public Framework::Message {
  public:
    explicit Errand(std::function<void()> action) : action_(std::move(action)) {}
    void Deliver(Framework::Task&) override { action_(); }

  private:
    const std::function<void()> action_;
};

/// A protected site with its backup copy made, real rsync, and events told by hand.
class Event : public ::testing::Test {
  protected:
    Event() {
        SentrelStatus::Instance().Reset();
        install_.UseRealRsync();
        data_.Write("site/index.html", "welcome");
        data_.Write("site/sub/page.html", "page");
        data_.Write("site/uploads/user.png", "png");
        data_.Write("site/app.log", "log");
        rule_.auto_restore = true;
        rule_.filepath = rule_.real_path = data_.Path("site/");
        rule_.backup_path = data_.Path("backup");
        rule_.ignored_subdir = {"uploads"};
        rule_.ignored_postfix = {".log"};
        Apply();
        EXPECT_TRUE(utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                         rule_.ignored_subdir, Engine::RSYNC_BACKUP));
        NoteBackup();
    }

    void Apply() {
        std::string id = rule_.real_path;
        if (id.back() == '/') id.pop_back();
        task_.watch_rules[id] = rule_;
        watch_ = id;
    }
    void NoteBackup() const {
        Engine::BackupProgress& progress = Engine::BackupProgress::Instance();
        EXPECT_TRUE(progress.NoteComplete(rule_, progress.Round()));
    }

    void Tell(const std::string& path, std::uint32_t mask, const std::string& target = "") {
        install_.log.Clear();
        Engine::FileNotifyMessage msg(watch_, path, target, mask, std::chrono::steady_clock::now());
        task_.FileNotifyMessageAction(&msg);
    }

    /// Action, path below the site, and outcome of the alarms since the last call, one a line.
    std::string Alarms() {
        std::string lines;
        const auto seen = running_.fakes->data.Seen();
        for (; told_ < seen.size(); ++told_) {
            Json::Value alarm;
            SDK::JsonUtils::ParseJsonStr(seen[told_].body.data(), seen[told_].body.size(), alarm);
            const Json::Value& info = alarm["file_info"][0];
            lines += info["action"].asString() + " " +
                     info["file_path"].asString().substr(rule_.real_path.size()) + ": " +
                     seen[told_].note.outcome + "\n";
            EXPECT_GE(seen[told_].note.duration_ms, 0);
        }
        return lines;
    }
    /// Runs the task, which finds all at once what `attack` posts.
    void TellAtOnce(const std::function<void()>& attack) {
        task_.duplicate();
        running_.fakes->RegisterTask(&task_, false);
        EXPECT_TRUE(Framework::Task::SendAgileMsg(&task_, new Errand(attack)));
    }
    void Post(const std::string& name, std::uint32_t mask) {
        const auto now = std::chrono::steady_clock::now();
        EXPECT_TRUE(
            task_.EnqueueMsg(new Engine::FileNotifyMessage(watch_, File(name), "", mask, now)));
    }
    /// Waits for so many, and for the end of the pass that told of them.
    std::string AlarmsOnce(std::size_t count) {
        EXPECT_TRUE(test::WaitFor(
            [&] { return running_.fakes->data.Seen().size() >= count && task_.QueueLength() == 0; },
            std::chrono::seconds(10)));
        running_.fakes->UnRegisterTask(task_.Id());
        return Alarms();
    }
    /// Makes the backup copy look like one of the present round; file stamps are some ms apart.
    void StampCopyAnew(const std::string& name) {
        const std::string copy = rule_.backup_path + File(name);
        Engine::BackupProgress::Instance().BeginCopy();
        const auto is_new = [&] {
            struct stat info {};
            return ::chmod(copy.c_str(), 0644) == 0 && ::lstat(copy.c_str(), &info) == 0 &&
                   Engine::BackupProgress::Instance().IsOfThisRound(info);
        };
        EXPECT_TRUE(test::WaitFor(is_new, std::chrono::seconds(5)));
    }
    /// Puts a link to a directory of somebody else's in the place of `name`.
    void PlantLink(const std::string& name) {
        data_.Write("elsewhere/page.html", "secret");
        data_.Write("elsewhere/passwd", "secret");
        const std::string place = name.empty() ? data_.Path("site") : File(name);
        fs::rename(place, data_.Path("moved" + std::to_string(++planted_)));
        fs::create_directory_symlink(data_.Path("elsewhere"), place);
    }
    void ExpectElsewhereUntouched() const {
        EXPECT_EQ(test::TempDir::Read(data_.Path("elsewhere/page.html")), "secret");
        EXPECT_EQ(test::TempDir::Read(data_.Path("elsewhere/passwd")), "secret");
        const auto entries = fs::directory_iterator(data_.Path("elsewhere"));
        EXPECT_EQ(std::distance(fs::begin(entries), fs::end(entries)), 2);
    }
    static int Counter(const std::string& name) {
        return SentrelStatus::Instance().ToJson(Json::Value())["counters"][name].asInt();
    }
    std::string Content(const std::string& name) const {
        return test::TempDir::Read(data_.Path("site/" + name));
    }
    std::string File(const std::string& name) const { return data_.Path("site/" + name); }

    test::Installation install_;
    test::RunningEngine running_{install_.log};
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    Engine::SentrelInotifyTask task_{4};
    test::TempDir data_;
    Engine::SentrelDirRule rule_;
    std::string watch_;
    std::size_t told_ = 0;
    int planted_ = 0;
};

TEST_F(Event, ModifiedFile_IsRestoredAndItsEchoIsQuiet) {
    data_.Write("site/index.html", "defaced!");
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(Content("index.html"), "welcome");
    EXPECT_EQ(Alarms(), "modify index.html: restored\n");
    EXPECT_EQ(install_.Debugs("File " + File("index.html") + " size (8) not matched with (7). "),
              1);
    EXPECT_EQ(install_.Debugs("auto restore " + File("index.html") + " "), 1);
    for (const std::uint32_t echo : {IN_MODIFY, IN_MOVED_TO}) {
        Tell(File("index.html"), echo);
        EXPECT_EQ(Alarms(), "");
        EXPECT_EQ(install_.Debugs("File/Dir " + File("index.html") + " updated."), 1);
    }
    EXPECT_EQ(Counter("restores_done"), 1);
    fs::rename(File("index.html"), File("kept"));
    Tell(File("index.html"), IN_MOVED_FROM);
    EXPECT_EQ(Content("index.html"), "welcome");
}

TEST_F(Event, SameSizeTimeSetBackAndOtherMode_IsRestored) {
    const auto time = fs::last_write_time(File("index.html"));
    data_.Write("site/index.html", "defaced");
    fs::last_write_time(File("index.html"), time);
    ::chmod(File("index.html").c_str(), 04777);
    Tell(File("index.html"), IN_ATTRIB);
    EXPECT_EQ(Content("index.html"), "welcome");
    EXPECT_EQ(fs::status(File("index.html")).permissions(), fs::perms(0644));
    EXPECT_EQ(Alarms(), "attribute index.html: restored\n");
}

TEST_F(Event, ChangedOwnerAlone_IsMendedAndItsEchoIsQuiet) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    struct stat info {};
    ASSERT_EQ(::chown(File("index.html").c_str(), 4711, 4712), 0);
    ASSERT_EQ(::chown(File("sub").c_str(), 4711, 0), 0);
    Tell(File("index.html"), IN_ATTRIB);
    EXPECT_EQ(install_.Debugs("File " + File("index.html") +
                              " owner (4711:4712) not matched with (0:0). "),
              1);
    Tell(File("sub"), IN_ATTRIB | IN_ISDIR);
    ASSERT_EQ(::stat(File("index.html").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid + info.st_gid, 0U);
    ASSERT_EQ(::stat(File("sub").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0U);
    EXPECT_EQ(Alarms(), "attribute index.html: restored\nattribute sub/: restored\n");
    Tell(File("index.html"), IN_ATTRIB);
    // A copy that could not take the owner over: it is put back once, and no loop arises.
    ASSERT_EQ(::chown((rule_.backup_path + File("sub/page.html")).c_str(), 4711, 0), 0);
    Tell(File("sub/page.html"), IN_ATTRIB);
    Tell(File("sub/page.html"), IN_ATTRIB);
    EXPECT_EQ(Counter("restores_done"), 3);
}

TEST_F(Event, DeletedFileAndDirectory_ComeBack) {
    fs::remove(File("index.html"));
    Tell(File("index.html"), IN_DELETE);
    EXPECT_EQ(Content("index.html"), "welcome");
    fs::remove_all(File("sub"));
    Tell(File("sub"), IN_DELETE | IN_ISDIR);
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Alarms(), "delete index.html: restored\ndelete sub/: restored\n");
    // The file's event comes first when a whole tree is deleted.
    fs::remove_all(data_.Path("site"));
    Tell(File("sub/page.html"), IN_DELETE);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    EXPECT_EQ(Alarms(), "delete sub/page.html: restored\ndelete : restored\n");
}

// Also when nothing tells by the times of a directory that something in it was replaced.
TEST_F(Event, FileInPlaceOfADirectoryOrTheOtherWayRound_IsReplaced) {
    fs::remove(File("index.html"));
    data_.Write("site/index.html/shell.php", "evil");
    Tell(File("index.html"), IN_CREATE | IN_ISDIR);
    EXPECT_EQ(Content("index.html"), "welcome");
    for (const char* told : {"sub", "sub/page.html"}) {
        fs::remove_all(File("sub"));
        data_.Write("site/sub", "evil");
        Tell(File(told), IN_CREATE);
        EXPECT_EQ(Content("sub/page.html"), "page") << told;
    }
    EXPECT_EQ(Alarms(),
              "modify index.html/: restored\nmodify sub: restored\n"
              "modify sub/page.html: restored\ndelete sub/: restored\n");
}

TEST_F(Event, DirectoryThatLacksOnlyWhatIsExcluded_IsLeftAlone) {
    const std::string copy = rule_.backup_path + File("sub/");
    struct stat before {};
    ASSERT_EQ(::stat(copy.c_str(), &before), 0);
    fs::create_directories(copy + "cache/deep");
    fs::copy_file(copy + "page.html", copy + "old.log");
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, copy.c_str(), times, 0), 0);
    rule_.ignored_subdir = {"uploads/", "sub/cache/"};
    Apply();
    Tell(File("sub"), IN_CREATE | IN_ISDIR);
    EXPECT_EQ(Alarms(), "");
    EXPECT_EQ(Counter("restores_done"), 0);
}

TEST_F(Event, EmptyDirectoryInPlaceOfItsLike_IsFilledAgain) {
    struct stat before {};
    ASSERT_EQ(::stat(File("sub").c_str(), &before), 0);
    fs::remove_all(File("sub"));
    fs::create_directory(File("sub"));
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, File("sub").c_str(), times, 0), 0);
    Tell(File("sub"), IN_CREATE | IN_ISDIR);
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Alarms(), "modify sub/: restored\n");
}

TEST_F(Event, ChangeThroughOneNameOfAFile_IsSeenAtItsOtherNames) {
    fs::create_hard_link(File("sub/page.html"), File("planted.html"));
    data_.Write("site/planted.html", "evil");
    Tell(File("planted.html"), IN_CREATE);
    EXPECT_EQ(Content("sub/page.html"), "evil");
    task_.HandleBacklog(std::chrono::steady_clock::now());
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Alarms(), "add planted.html: removed\nmodify sub/page.html: restored\n");

    fs::create_hard_link(File("sub/page.html"), File("gone.html"));
    data_.Write("site/gone.html", "evil again");
    fs::remove(File("gone.html"));
    Tell(File("gone.html"), IN_MODIFY);
    fs::create_hard_link(File("index.html"), File("ignored.log"));
    data_.Write("site/ignored.log", "evil");
    Tell(File("ignored.log"), IN_MODIFY);
    const auto is_back = [&] {
        task_.HandleBacklog(std::chrono::steady_clock::now());
        return Content("sub/page.html") + Content("index.html") == "pagewelcome";
    };
    EXPECT_TRUE(test::WaitFor(is_back, std::chrono::seconds(20)));
}

TEST_F(Event, ForeignFileAndTree_AreRemovedOnArrivalOnly) {
    data_.Write("site/shell.php", "evil");
    data_.Write("site/new/deep/shell.php", "evil");
    Tell(File("shell.php"), IN_MODIFY);
    EXPECT_TRUE(fs::exists(File("shell.php")));
    EXPECT_EQ(Alarms(), "add shell.php: reported only\n");
    Tell(File("shell.php"), IN_CREATE);
    EXPECT_FALSE(fs::exists(File("shell.php")));
    Tell(File("new"), IN_CREATE | IN_ISDIR);
    EXPECT_FALSE(fs::exists(File("new")));
    EXPECT_EQ(Alarms(), "add new/: removed\n");
    Tell(File("shell.php"), IN_DELETE);
    EXPECT_EQ(install_.Debugs("File/Dir " + File("shell.php") + " deleted by update or restore."),
              1);
    EXPECT_EQ(Alarms(), "");
}

TEST_F(Event, Moves_AreUndoneAtBothEnds) {
    fs::rename(File("index.html"), File("gone.html"));
    Tell(File("index.html"), IN_MOVED_FROM, File("gone.html"));
    Tell(File("gone.html"), IN_MOVED_TO);
    EXPECT_EQ(Content("index.html"), "welcome");
    EXPECT_FALSE(fs::exists(File("gone.html")));
    EXPECT_EQ(Alarms(), "modify index.html: restored\nadd gone.html: removed\n");
    data_.Write("elsewhere", "replaced");
    fs::rename(data_.Path("elsewhere"), File("sub/page.html"));
    Tell(File("sub/page.html"), IN_MOVED_TO);
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Alarms(), "modify sub/page.html: restored\n");
    EXPECT_EQ(Counter("removals_done"), 1);
    EXPECT_EQ(Counter("removals_failed"), 0);
}

TEST_F(Event, Exclusions_AreLeftAlone) {
    data_.Write("site/uploads/user.png", "other");
    data_.Write("site/other.log", "x");
    utils_->other_rule_prefixes = {File("other_rule/")};
    data_.Write("site/other_rule/f", "x");
    for (const std::string name : {"uploads/user.png", "app.log", "other.log", "other_rule/f"}) {
        Tell(File(name), IN_CREATE);
        EXPECT_TRUE(fs::exists(File(name))) << name;
    }
    Tell(File("uploads/user.png"), IN_MOVED_TO);
    EXPECT_EQ(install_.Debugs(File("uploads/user.png") + " is a ignored."), 1);
    EXPECT_EQ(install_.Debugs(File("uploads/user.png") + " is a ignored uploads."), 1);
    EXPECT_EQ(Alarms(), "");
}

TEST_F(Event, RootRestore_KeepsExcludedContent) {
    data_.Write("site/uploads/new.png", "png");
    data_.Write("site/shell.php", "evil");
    ::chmod(data_.Path("site").c_str(), 0777);
    Tell(data_.Path("site"), IN_ATTRIB);
    EXPECT_EQ(fs::status(data_.Path("site")).permissions(), fs::perms(0755));
    EXPECT_FALSE(fs::exists(File("shell.php")));
    EXPECT_EQ(Content("uploads/user.png") + Content("uploads/new.png") + Content("app.log"),
              "pngpnglog");
    EXPECT_EQ(install_.Debugs("edit root path " + rule_.real_path + " "), 1);
    EXPECT_EQ(Alarms(), "attribute : restored\n");
}

TEST_F(Event, RestoreOfADirectory_KeepsWhatIsExcludedFurtherDown) {
    rule_.ignored_subdir = {"sub/cache"};
    Apply();
    data_.Write("site/sub/cache/kept", "x");
    data_.Write("site/sub/foreign", "x");
    ::chmod(File("sub").c_str(), 0777);
    Tell(File("sub"), IN_ATTRIB | IN_ISDIR);
    EXPECT_TRUE(fs::exists(File("sub/cache/kept")));
    EXPECT_FALSE(fs::exists(File("sub/foreign")));
    EXPECT_EQ(fs::status(File("sub")).permissions(), fs::perms(0755));
}

TEST_F(Event, MonitorOnlyOrNoAutoRestore_OnlyReports) {
    data_.Write("site/index.html", "defaced");
    data_.Write("site/shell.php", "evil");
    utils_->monitor_only = true;
    Tell(File("index.html"), IN_MODIFY);
    utils_->monitor_only = false;
    rule_.auto_restore = false;
    Apply();
    Tell(File("shell.php"), IN_CREATE);
    EXPECT_EQ(Content("index.html") + Content("shell.php"), "defacedevil");
    EXPECT_EQ(Alarms(), "modify index.html: reported only\nadd shell.php: reported only\n");
}

TEST_F(Event, LinkOrPipeInPlaceOfSomething_IsReplacedAndNotFollowed) {
    PlantLink("sub");
    Tell(File("sub"), IN_CREATE);
    fs::remove(File("sub/page.html"));
    ASSERT_EQ(::mkfifo(File("sub/page.html").c_str(), 0644), 0);
    Tell(File("sub/page.html"), IN_CREATE);
    PlantLink("index.html");
    Tell(File("index.html"), IN_MOVED_TO);
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(File("sub"))));
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    PlantLink("");
    Tell(data_.Path("site"), IN_ATTRIB | IN_ISDIR);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    ExpectElsewhereUntouched();
    EXPECT_EQ(Alarms(),
              "modify sub: restored\nmodify sub/page.html: restored\n"
              "modify index.html: restored\nattribute : restored\n");
    EXPECT_EQ(Counter("planted_links_removed"), 3);
}

TEST_F(Event, LinkPlantedOnTheWay_BringsTheWholeDirectoryBack) {
    data_.Write("site/sub/deep/a.html", "a");
    ASSERT_TRUE(
        utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, {}, {}, Engine::RSYNC_BACKUP));
    PlantLink("sub");
    Tell(File("sub/deep/a.html"), IN_DELETE);
    EXPECT_EQ(Content("sub/deep/a.html") + Content("sub/page.html"), "apage");
    EXPECT_EQ(Alarms(), "delete sub/deep/a.html: restored\ndelete sub/: restored\n");
    ExpectElsewhereUntouched();
}

TEST_F(Event, RemovalBehindALink_TakesTheLinkOnlyWhereADirectoryBelongs) {
    PlantLink("sub");
    Tell(File("sub/passwd"), IN_CREATE);
    EXPECT_FALSE(fs::exists(fs::symlink_status(File("sub"))));
    fs::create_directory_symlink(data_.Path("elsewhere"), File("foreign"));
    Tell(File("foreign/passwd"), IN_CREATE);
    ExpectElsewhereUntouched();
    Tell(File("foreign"), IN_CREATE | IN_ISDIR);
    EXPECT_FALSE(fs::exists(fs::symlink_status(File("foreign"))));
    ExpectElsewhereUntouched();
    EXPECT_EQ(Alarms(),
              "add sub/passwd: removed\nadd foreign/passwd: reported only\n"
              "add foreign/: removed\n");
}

TEST_F(Event, TextBehindAPlantedLink_IsNotInTheAlarm) {
    utils_->monitor_only = true;
    utils_->diff_content = true;
    PlantLink("sub");
    Tell(File("sub/page.html"), IN_MODIFY);
    fs::remove(File("index.html"));
    fs::create_symlink(data_.Path("elsewhere/passwd"), File("index.html"));
    Tell(File("index.html"), IN_CREATE);
    for (const auto& alarm : running_.fakes->data.Seen()) {
        EXPECT_EQ(alarm.body.find("secret"), std::string::npos) << alarm.body;
    }
    EXPECT_EQ(Alarms(), "modify sub/page.html: reported only\nmodify index.html: reported only\n");
    utils_->monitor_only = utils_->diff_content = false;
}

TEST_F(Event, Alarm_DescribesWhatStoodThereBeforeItWasPutRight) {
    utils_->diff_content = utils_->diff_attr = true;
    ::chmod(data_.Write("site/index.html", "defaced!").c_str(), 0666);
    Tell(File("index.html"), IN_MODIFY);
    data_.Write("site/shell.php", "evil code");
    Tell(File("shell.php"), IN_CREATE);
    data_.Write("site/sub/page.html", std::string("\0\1", 2));
    Tell(File("sub/page.html"), IN_MODIFY);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    const auto alarms = running_.fakes->data.Seen();
    ASSERT_EQ(alarms.size(), 3U);
    EXPECT_NE(alarms[0].body.find("< defaced!"), std::string::npos) << alarms[0].body;
    EXPECT_NE(alarms[0].body.find("mode:-rw-rw-rw- size:8)"), std::string::npos) << alarms[0].body;
    EXPECT_NE(alarms[1].body.find("\"evil code\""), std::string::npos) << alarms[1].body;
    EXPECT_NE(alarms[2].body.find("Binary files " + File("sub/page.html")), std::string::npos)
        << alarms[2].body;
    utils_->diff_content = utils_->diff_attr = false;
}

TEST_F(Event, CopyFromBeforeAPolicyOrPause_UndoesNoUpdate) {
    StampCopyAnew("index.html");
    Engine::BackupProgress::Instance().Restart();
    // A copying from before may still be at work: what it makes counts as little.
    ::chmod((rule_.backup_path + File("index.html")).c_str(), 0640);
    data_.Write("site/index.html", "an update");
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(Content("index.html"), "an update");
    EXPECT_EQ(Alarms(), "modify index.html: reported only\n");
    EXPECT_TRUE(utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                     rule_.ignored_subdir, Engine::RSYNC_BACKUP));
    NoteBackup();
    task_.HandleBacklog(std::chrono::steady_clock::now());
    EXPECT_EQ(Content("index.html"), "an update");
    data_.Write("site/index.html", "defaced");
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(Content("index.html"), "an update");
}

TEST_F(Event, BeforeTheFirstBackup_OnlyWhatHasACopyIsPutBackAndTheRestWaits) {
    Engine::BackupProgress::Instance().Restart();
    StampCopyAnew("index.html");
    data_.Write("site/index.html", "defaced!");
    data_.Write("site/new.html", "not copied yet");
    data_.Write("site/gone.html", "x");
    ::chmod(File("sub").c_str(), 0700);
    Tell(File("index.html"), IN_MODIFY);
    Tell(File("new.html"), IN_MOVED_TO);
    Tell(File("new.html"), IN_MODIFY);
    Tell(File("gone.html"), IN_CREATE);
    Tell(File("sub"), IN_ATTRIB | IN_ISDIR);
    EXPECT_EQ(Content("index.html") + Content("new.html"), "welcomenot copied yet");
    EXPECT_EQ(Alarms(),
              "modify index.html: restored\nadd new.html: reported only\n"
              "add gone.html: reported only\nattribute sub/: reported only\n");
    task_.HandleBacklog(std::chrono::steady_clock::now());
    EXPECT_TRUE(fs::exists(File("new.html")));
    NoteBackup();
    fs::remove(File("gone.html"));
    task_.HandleBacklog(std::chrono::steady_clock::now());
    EXPECT_FALSE(fs::exists(File("new.html")));
    EXPECT_EQ(fs::status(File("sub")).permissions(), fs::perms(0755));
    EXPECT_EQ(Counter("removals_done"), 1);
    EXPECT_EQ(Counter("restores_done"), 2);
    EXPECT_EQ(Counter("removals_failed") + Counter("deferred_overflows"), 0);
}

TEST_F(Event, MoreThanCanWait_IsFoundByComparingTheTree) {
    Engine::BackupProgress::Instance().Restart();
    for (int at = 0; at < 9; ++at) {
        Tell(data_.Write("site/sub/new" + std::to_string(at), "evil"), IN_CREATE);
    }
    EXPECT_EQ(Counter("events_deferred"), 4);
    EXPECT_EQ(Counter("deferred_overflows"), 5);
    // Nobody tells of these any more.
    const auto time = fs::last_write_time(File("index.html"));
    data_.Write("site/index.html", "defaced");
    fs::last_write_time(File("index.html"), time);
    fs::remove(File("sub/page.html"));
    ::chmod(File("sub").c_str(), 0700);
    data_.Write("site/uploads/kept.png", "png");
    data_.Write("site/new/deep/shell.php", "evil");
    const auto judge = [&] { task_.HandleBacklog(std::chrono::steady_clock::now()); };
    judge();
    EXPECT_EQ(Content("sub/new8"), "evil");
    NoteBackup();
    EXPECT_TRUE(test::WaitFor([&] { return judge(), Counter("trees_compared") == 1; },
                              std::chrono::seconds(20)));
    EXPECT_EQ(Content("index.html") + Content("uploads/kept.png"), "welcomepng");
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(fs::status(File("sub")).permissions(), fs::perms(0755));
    EXPECT_FALSE(fs::exists(File("new")) || fs::exists(File("sub/new8")));
    const std::string alarms = Alarms();
    EXPECT_NE(alarms.find("modify index.html: restored\n"), std::string::npos) << alarms;
    EXPECT_NE(alarms.find("add new/: removed\n"), std::string::npos) << alarms;
    judge();
    EXPECT_EQ(Counter("trees_compared"), 1);
}

TEST_F(Event, UndoingThatFailsOrIsInterrupted_IsTriedAgainLater) {
    const auto now = std::chrono::steady_clock::now();
    const std::string full = data_.Write("full", "");
    install_.UseRecordingRsync("[ -e " + full + " ] && exit 11; exec /usr/bin/rsync \"$@\"");
    data_.Write("site/index.html", "defaced!");
    Tell(File("index.html"), IN_MODIFY);
    task_.HandleBacklog(now);
    EXPECT_EQ(Counter("retries"), 0);
    task_.HandleBacklog(now + std::chrono::seconds(20));
    EXPECT_EQ(Counter("retries"), 1);
    fs::remove(full);
    task_.HandleBacklog(now + std::chrono::seconds(20));
    EXPECT_EQ(Content("index.html"), "defaced!");
    task_.HandleBacklog(now + std::chrono::seconds(30));
    EXPECT_EQ(Content("index.html"), "welcome");

    SDK::CommandInterrupter interrupter;
    const SDK::CommandInterrupter::Scope scope(interrupter);
    fs::remove_all(File("sub"));
    interrupter.Interrupt();
    Tell(File("sub"), IN_DELETE | IN_ISDIR);
    interrupter.Reset();
    EXPECT_EQ(Content("sub/page.html"), "");
    task_.HandleBacklog(now + std::chrono::seconds(60));
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Counter("restores_failed"), 3);
    EXPECT_EQ(Counter("retries_given_up"), 0);

    data_.Write("site/a b", "no command line carries it");
    fs::copy(File("a b"), rule_.backup_path + File("a b"));
    fs::remove(File("a b"));
    Tell(File("a b"), IN_DELETE);
    task_.HandleBacklog(now + std::chrono::hours(1));
    EXPECT_EQ(Counter("retries"), 3);
}

TEST(FailedEvents, Keep_GivesUpAtLast) {
    Engine::FailedEvents failed(1);
    Engine::FailedEvents::Clock::time_point now{};
    using Kept = Engine::FailedEvents::Kept;
    EXPECT_EQ(failed.Keep({{"/w", "/w/a", IN_MODIFY, {}}, 1}, now), Kept::kYes);
    EXPECT_EQ(failed.Keep({{"/w", "/w/b", IN_MODIFY, {}}, 1}, now), Kept::kNoRoom);
    int tries = 0;
    for (Kept kept = Kept::kYes; kept == Kept::kYes; ++tries) {
        now += std::chrono::minutes(10);
        auto due = failed.TakeDue(now);
        ASSERT_TRUE(due);
        ++due->tries;
        kept = failed.Keep(*due, now);
    }
    EXPECT_EQ(tries, 12);
    EXPECT_EQ(failed.Size(), 0U);
}

TEST(DeferredEvents, Keep_BoundsAndTellsHowAPathStandsNow) {
    Engine::DeferredEvents deferred(9);
    const auto keep = [&](const std::string& path, std::uint32_t mask) {
        return deferred.Keep({path == "/other" ? "/w2" : "/w", path, mask, {}});
    };
    EXPECT_TRUE(keep("/a", IN_DELETE) && keep("/a", IN_MOVED_TO) && keep("/a", IN_MODIFY));
    EXPECT_TRUE(keep("/b", IN_CREATE | IN_ISDIR) && keep("/b", IN_MOVED_FROM | IN_ISDIR));
    EXPECT_TRUE(keep("/other", IN_ATTRIB));
    for (std::size_t at = 3; at < 9; ++at) {
        keep("/" + std::to_string(at), IN_CREATE);
    }
    EXPECT_FALSE(keep("/more", IN_CREATE));
    EXPECT_TRUE(keep("/other", IN_MODIFY));
    const auto first = deferred.Take(2, [](const std::string& id) { return id == "/w"; });
    ASSERT_EQ(first.size(), 2U);
    EXPECT_EQ(first[0].path + first[1].path, "/a/b");
    EXPECT_EQ(first[0].raw_mask, static_cast<std::uint32_t>(IN_CREATE | IN_MODIFY));
    EXPECT_EQ(first[1].raw_mask, static_cast<std::uint32_t>(IN_DELETE | IN_ISDIR));
    EXPECT_TRUE(keep("/more", IN_CREATE));
    EXPECT_EQ(deferred.Take(9, [](const std::string& id) { return id == "/w2"; }).size(), 1U);
}

TEST_F(Event, ManyAtOnce_EachHasItsOwnDifferenceAndItsTurn) {
    utils_->diff_content = true;
    TellAtOnce([&] {
        data_.Write("site/index.html", "defaced index");
        Post("index.html", IN_MODIFY);
        fs::remove(File("sub/page.html"));
        Post("sub/page.html", IN_DELETE);
        data_.Write("site/shell.php", "evil code");
        Post("shell.php", IN_CREATE);
        Post("app.log", IN_MODIFY);  // nothing to tell, and yet nothing waits for more to come
    });
    EXPECT_EQ(AlarmsOnce(3),
              "modify index.html: restored\ndelete sub/page.html: restored\n"
              "add shell.php: removed\n");
    const auto seen = running_.fakes->data.Seen();
    EXPECT_NE(seen[0].body.find("< defaced index"), std::string::npos) << seen[0].body;
    EXPECT_NE(seen[1].body.find(R"("diff":"")"), std::string::npos) << seen[1].body;
    EXPECT_NE(seen[2].body.find(R"("evil code")"), std::string::npos) << seen[2].body;
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    utils_->diff_content = false;
}

TEST_F(Event, ManyAtOnce_FailureIsOfItsOwnFileAndTheSameFileWaits) {
    const std::string calls = data_.Path("calls");
    install_.UseRecordingRsync("echo begin >> " + calls + "; case \"$*\" in *index.html*) " +
                               "echo disk full; echo end >> " + calls + "; exit 11;; esac");
    TellAtOnce([&] {
        data_.Write("site/index.html", "defaced!");
        data_.Write("site/sub/page.html", "defaced");
        for (const char* name : {"index.html", "index.html", "sub/page.html", "app.log"}) {
            Post(name, IN_MODIFY);
        }
    });
    EXPECT_EQ(AlarmsOnce(2), "modify index.html: restore failed\nmodify sub/page.html: restored\n");
    EXPECT_EQ(Counter("restores_failed"), 2);
    EXPECT_EQ(Counter("alarms_merged"), 1);
    const std::string text = test::TempDir::Read(calls);
    EXPECT_EQ(text.substr(0, 10), "begin\nend\n") << text;  // no two of one file at a time
}

TEST_F(Event, RestoreThatFails_IsSaidInAlarmAndStatus) {
    install_.UseRecordingRsync("echo disk full; exit 11");
    data_.Write("site/index.html", "defaced!");
    task_.watch_rules[watch_] = rule_;
    SentrelStatus::Instance().PublishPaths({{watch_, rule_}});
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(Alarms(), "modify index.html: restore failed\n");
    const Json::Value status = SentrelStatus::Instance().ToJson(Json::Value());
    EXPECT_EQ(status["protected_paths"][0]["last_failure"],
              "restore of " + File("index.html") + ": rsync ended with 11: disk full");
    EXPECT_EQ(status["counters"]["restores_failed"].asInt(), 1);
}

TEST_F(Event, SingleFile_IsRestoredAfterBeingReplaced) {
    rule_.is_file = true;
    rule_.filepath = rule_.real_path = File("sub/page.html");
    rule_.ignored_subdir = {"cache"};
    Apply();
    NoteBackup();
    data_.Write("site/new", "replaced");
    fs::rename(File("new"), File("sub/page.html"));
    Tell(File("sub/page.html"), IN_MOVED_TO);
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Alarms(), "modify : restored\n");
    EXPECT_EQ(install_.Debugs("HandleEventMainFile1 check ignore dir real:cache, full:" +
                              File("sub/cache") + "."),
              1);
}

TEST_F(Event, WhatIsNotForUs_EndsEarly) {
    data_.Write("site/index.html", "defaced");
    utils_->is_run = false;
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(install_.log.Texts(Message::PRIO_DEBUG), std::vector<std::string>{"inot not run"});
    utils_->is_run = true;
    task_.FileNotifyMessageAction(nullptr);
    watch_ = "/other";
    Tell(File("index.html"), IN_MODIFY);
    EXPECT_EQ(install_.Debugs("Find watch file (/other) faild."), 1);
    Apply();
    Tell("", IN_MODIFY);
    EXPECT_EQ(Content("index.html"), "defaced");
    EXPECT_EQ(Alarms(), "");
}

}  // namespace
