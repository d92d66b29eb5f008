#include <fcntl.h>
#include <unistd.h>

#include "fixtures/EventFixture.h"

namespace {

namespace fs = std::filesystem;
using Engine::SentrelStatus;
using Poco::Message;
using test::Event;

TEST_F(Event, ModifiedFile_IsRestoredAndItsEchoIsIgnored) {
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

TEST_F(Event, ChangedOwner_IsRestoredAndItsEchoIsIgnored) {
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
    // A copy with another owner: each event restores once, without a loop.
    ASSERT_EQ(::chown((rule_.backup_path + File("sub/page.html")).c_str(), 4711, 0), 0);
    Tell(File("sub/page.html"), IN_ATTRIB);
    Tell(File("sub/page.html"), IN_ATTRIB);
    EXPECT_EQ(Counter("restores_done"), 3);
}

TEST_F(Event, ForeignFileAndTree_AreRemovedOnlyOnArrival) {
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

TEST_F(Event, Move_IsUndoneAtBothEnds) {
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

TEST_F(Event, ExcludedObjects_AreIgnored) {
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
    fs::rename(File("app.log"), File("app.1.log"));
    Tell(File("app.log"), IN_MOVED_FROM, File("app.1.log"));
    EXPECT_FALSE(fs::exists(File("app.log")));
    Tell(File("app.1.log"), IN_MOVED_TO);
    EXPECT_EQ(Content("app.1.log"), "log");
    EXPECT_EQ(Alarms(), "");
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

TEST_F(Event, EventThatIsNotForThisTask_EndsEarly) {
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
