#include <fcntl.h>
#include <framework/ConfigManager.h>
#include <unistd.h>

#include <sstream>

#include "fixtures/EventFixture.h"
#include "support/FileSizeLimit.h"

namespace {

namespace fs = std::filesystem;
using Engine::SentrelStatus;
using test::Event;

TEST_F(Event, DeletedFileAndDirectory_AreRestored) {
    // "chmod f; rm f": the event of the chmod is reported as a deletion, too.
    fs::remove(File("index.html"));
    Tell(File("index.html"), IN_ATTRIB);
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

// Also when the times of the parent directory do not show the replacement.
TEST_F(Event, FileInPlaceOfADirectoryAndViceVersa_IsReplaced) {
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

TEST_F(Event, DirectoryThatLacksOnlyExcludedObjects_IsNotRestored) {
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

TEST_F(Event, EmptyDirectoryWithTheSameAttributes_IsRestored) {
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

TEST_F(Event, RestoreOfADirectory_KeepsExcludedSubdirectories) {
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

TEST_F(Event, LinkOrPipeInPlaceOfAnObject_IsReplacedAndNotFollowed) {
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

TEST_F(Event, LinkInPlaceOfAParent_RestoresTheWholeDirectory) {
    data_.Write("site/sub/deep/a.html", "a");
    ASSERT_TRUE(
        utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, {}, {}, Engine::RSYNC_BACKUP));
    PlantLink("sub");
    Tell(File("sub/deep/a.html"), IN_DELETE);
    EXPECT_EQ(Content("sub/deep/a.html") + Content("sub/page.html"), "apage");
    EXPECT_EQ(Alarms(), "delete sub/deep/a.html: restored\ndelete sub/: restored\n");
    ExpectElsewhereUntouched();
}

TEST_F(Event, RemovalBehindALink_RemovesTheLinkOnlyInPlaceOfADirectory) {
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

TEST_F(Event, FailedRestore_IsInTheAlarmAndTheStatus) {
    data_.Write("site/index.html", "");
    task_.watch_rules[watch_] = rule_;
    state_.status.PublishPaths({{watch_, rule_}});
    {
        const test::FileSizeLimit full(1);
        Tell(File("index.html"), IN_MODIFY);
    }
    EXPECT_EQ(Alarms(), "modify index.html: restore failed\n");
    const Json::Value status = state_.status.ToJson(Json::Value(), {});
    const std::string failure = status["protected_paths"][0]["last_failure"].asString();
    EXPECT_EQ(failure.find("restore of " + File("index.html") + ": "), 0U) << failure;
    EXPECT_NE(failure.find("File too large"), std::string::npos) << failure;
    EXPECT_EQ(status["counters"]["restores_failed"].asInt(), 1);
}

// No name is interpreted by a shell or as an option.
TEST_F(Event, EveryName_IsRestoredAndNoneIsRun) {
    const std::string run = "touch ${HOME}run";
    std::vector<std::string> names = {"x;" + run + ";y.html", "$(" + run + ")", "`" + run + "`",
                                      std::string(255, 'n')};
    std::istringstream list("a b\t-e\t--delete\t.hidden\thost::module\t[a]\t#x");
    for (std::string name; std::getline(list, name, '\t');) names.push_back(name);
    for (const char byte : std::string("\"'\n\t\\*?~!\xff\x01&|<>(){}"))
        names.emplace_back(1, byte);
    for (const std::string& name : names) {
        data_.Write("site/" + name, "good");
        data_.Write("site/dir/" + name + "/page.html", "good");
    }
    ASSERT_TRUE(utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                     rule_.ignored_subdir, Engine::RSYNC_BACKUP));
    for (const std::string& name : names) {
        data_.Write("site/" + name, "evil!");
        Tell(File(name), IN_MODIFY);
        EXPECT_EQ(Content(name), "good") << name;
        fs::remove_all(File("dir/" + name));
        Tell(File("dir/" + name), IN_DELETE | IN_ISDIR);
        EXPECT_EQ(Content("dir/" + name + "/page.html"), "good") << name;
        data_.Write("site/sub/" + name, "evil");
        Tell(File("sub/" + name), IN_CREATE);
        EXPECT_FALSE(fs::exists(File("sub/" + name))) << name;
    }
    EXPECT_FALSE(fs::exists(install_.dir.Path("conf/homerun")));
}

TEST_F(Event, WithoutRestoresInProcess_RsyncRestoresTheSame) {
    Framework::ConfigManager& config = Framework::ConfigManager::GetInstance();
    std::string error;
    ASSERT_TRUE(
        config.Load(install_.dir.Write("a.json", R"({"sentrel": {"restore_in_process": false}})"),
                    true, error));
    data_.Write("site/index.html", "defaced!");
    Tell(File("index.html"), IN_MODIFY);
    fs::remove_all(File("sub"));
    Tell(File("sub"), IN_DELETE | IN_ISDIR);
    data_.Write("site/shell.php", "evil");
    data_.Write("site/uploads/new.png", "png");
    ::chmod(data_.Path("site").c_str(), 0777);
    Tell(data_.Path("site"), IN_ATTRIB);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    EXPECT_FALSE(fs::exists(File("shell.php")));
    EXPECT_EQ(Content("uploads/new.png"), "png");
    EXPECT_EQ(fs::status(data_.Path("site")).permissions(), fs::perms(0755));
    EXPECT_EQ(Alarms(),
              "modify index.html: restored\ndelete sub/: restored\nattribute : restored\n");
    ASSERT_TRUE(config.Load(install_.dir.Write("b.json", "{}"), true, error));
}

// The restored object, changed in an excluded directory, with its old time.
TEST_F(Event, ObjectMovedAwayChangedAndMovedBack_IsRestored) {
    data_.Write("site/index.html", "defaced!");
    Tell(File("index.html"), IN_MODIFY);
    const auto time = fs::last_write_time(File("index.html"));
    fs::rename(File("index.html"), File("uploads/x"));
    data_.Write("site/uploads/x", "defaced");
    fs::last_write_time(File("uploads/x"), time);
    fs::rename(File("uploads/x"), File("index.html"));
    Tell(File("index.html"), IN_MOVED_FROM, File("uploads/x"));
    Tell(File("index.html"), IN_MOVED_TO);
    EXPECT_EQ(Content("index.html"), "welcome");
    // The same with a directory. There are no events for its content.
    const auto page_time = fs::last_write_time(File("sub/page.html"));
    const auto sub_time = fs::last_write_time(File("sub"));
    fs::rename(File("sub"), File("uploads/sub"));
    data_.Write("site/uploads/sub/page.html", "evil");
    fs::last_write_time(File("uploads/sub/page.html"), page_time);
    fs::last_write_time(File("uploads/sub"), sub_time);
    fs::rename(File("uploads/sub"), File("sub"));
    Tell(File("sub"), IN_MOVED_FROM | IN_ISDIR, File("uploads/sub"));
    Tell(File("sub"), IN_MOVED_TO | IN_ISDIR);
    EXPECT_EQ(Content("sub/page.html"), "page");
}

// A file opened without a name is linked in place of the page and changed through the descriptor.
// The kernel reports this change under the name "#" + inode.
TEST_F(Event, ChangeOfAnUnnamedFile_IsFoundUnderItsLinkedName) {
    struct stat info {};
    const int file = ::open(data_.Path("site").c_str(), O_TMPFILE | O_RDWR, 0644);
    ASSERT_GE(file, 0);
    ASSERT_EQ(::write(file, "welcome", 7), 7);
    fs::remove(File("index.html"));
    ASSERT_EQ(::linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(file)).c_str(), AT_FDCWD,
                       File("index.html").c_str(), AT_SYMLINK_FOLLOW),
              0);
    ASSERT_EQ(::fstat(file, &info), 0);
    ASSERT_EQ(::pwrite(file, "defaced", 7, 0), 7);
    Tell(File("#" + std::to_string(info.st_ino)), IN_MODIFY);
    const auto trees_to_compare = [&] {
        task_.HandleBacklog(std::chrono::steady_clock::now());
        return state_.status.ToJson({}, {})["backlog"]["trees_to_compare"].asInt();
    };
    EXPECT_TRUE(test::WaitFor([&] { return trees_to_compare() == 0; }, std::chrono::seconds(20)));
    EXPECT_EQ(Content("index.html"), "welcome");
    ::close(file);
    // The event of a restore must not start a tree comparison.
    ASSERT_EQ(::stat(File("index.html").c_str(), &info), 0);
    Tell(File("#" + std::to_string(info.st_ino)), IN_MODIFY);
    EXPECT_EQ(trees_to_compare(), 0);
}

TEST_F(Event, DirectoryInPlaceOfAPipe_IsReplacedByThePipe) {
    ASSERT_EQ(::mkfifo(File("pipe").c_str(), 0600), 0);
    ASSERT_TRUE(
        utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, {}, {}, Engine::RSYNC_BACKUP));
    fs::remove(File("pipe"));
    data_.Write("site/pipe/shell.php", "evil");
    Tell(File("pipe"), IN_CREATE | IN_ISDIR);
    EXPECT_TRUE(fs::is_fifo(fs::symlink_status(File("pipe"))));
}

TEST_F(Event, ProtectedDirectoryWithoutACopy_IsNotRemoved) {
    fs::rename(rule_.backup_path + data_.Path("site"), data_.Path("lost"));
    Tell(data_.Path("site"), IN_MOVED_TO | IN_ISDIR);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    EXPECT_EQ(Alarms(), "add : reported only\n");
}

TEST_F(Event, WithoutABackupFolder_NothingIsRemoved) {
    fs::rename(rule_.backup_path, data_.Path("lost"));
    Tell(File("index.html"), IN_MOVED_TO);
    Tell(File("sub"), IN_CREATE | IN_ISDIR);
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    EXPECT_EQ(Alarms(), "add index.html: reported only\nadd sub/: reported only\n");
}

TEST_F(Event, TemporaryNameOfARestore_IsIgnoredOnlyWhenTheFileIsGone) {
    for (const char* name : {"#4711", ".morvane-restore-0123456789abcdef"}) {
        Tell(File(name), IN_CREATE);
        EXPECT_EQ(Alarms(), "") << name;
        data_.Write("site/" + std::string(name), "evil");
        Tell(File(name), IN_CREATE);
        EXPECT_EQ(Alarms(), "add " + std::string(name) + ": removed\n");
    }
}

TEST_F(Event, ReplacedSingleFile_IsRestored) {
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
    fs::remove(File("sub/page.html"));
    data_.Write("site/sub/page.html/page.html", "evil");
    task_.alarm_cache.clear();
    Tell(File("sub/page.html"), IN_CREATE | IN_ISDIR);
    EXPECT_EQ(Content("sub/page.html"), "page");
    EXPECT_EQ(Alarms(), "modify /: restored\n");
    EXPECT_EQ(install_.Debugs("HandleEventMainFile1 check ignore dir real:cache, full:" +
                              File("sub/cache") + "."),
              1);
}

}  // namespace
