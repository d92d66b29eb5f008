#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "fixtures/EventFixture.h"
#include "support/Isolation.h"

namespace {

namespace fs = std::filesystem;
using test::Event;

constexpr std::chrono::seconds kPeriod = Engine::Reconciler::kDefaultPeriod;

/// A protected site of whose changes no event is told.
class Reconciler : public Event {
  protected:
    Reconciler() {
        state_.progress.BeginCopy();
        data_.Write("elsewhere/file", "");
    }

    /// Lets time pass until the site has been looked through once more.
    void Look() {
        const int looks = Counter("looks");
        now_ += kPeriod;
        for (int slice = 0; slice < 1000 && Counter("looks") == looks; ++slice) {
            now_ += std::chrono::seconds(10);
            task_.HandleBacklog(now_);
        }
        EXPECT_EQ(Counter("looks"), looks + 1);
    }

    std::chrono::steady_clock::time_point now_ = std::chrono::steady_clock::now();
};

TEST_F(Reconciler, ChangesWithoutAnEvent_AreUndoneAndReported) {
    fs::create_hard_link(File("index.html"), data_.Path("elsewhere/link"));
    std::ofstream(data_.Path("elsewhere/link")) << "defaced";
    fs::remove(File("sub/page.html"));
    data_.Write("site/sub/shell.php", "evil");
    data_.Write("site/new/deep/shell.php", "evil");
    Look();
    EXPECT_EQ(Content("index.html") + Content("sub/page.html"), "welcomepage");
    EXPECT_FALSE(fs::exists(File("sub/shell.php")) || fs::exists(File("new")));
    const std::string alarms = Alarms();
    for (const char* line : {"modify index.html: restored\n", "delete sub/page.html: restored\n",
                             "add sub/shell.php: removed\n", "add new/: removed\n"}) {
        EXPECT_NE(alarms.find(line), std::string::npos) << line << "in\n" << alarms;
    }
    EXPECT_EQ(Counter("found_by_looks"), 4);
    Look();
    EXPECT_EQ(Alarms(), "") << "a restored object is no change";
}

TEST_F(Reconciler, TimeThatIsSetBack_HidesNoChange) {
    Look();
    struct stat before {};
    ASSERT_EQ(::stat(File("index.html").c_str(), &before), 0);
    std::ofstream(File("index.html")) << "defaced";
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, File("index.html").c_str(), times, 0), 0);
    Look();
    EXPECT_EQ(Content("index.html"), "welcome");
}

TEST_F(Reconciler, ExcludedAndIgnoredPaths_AreLeftAlone) {
    data_.Write("site/uploads/shell.php", "theirs");
    data_.Write("site/app.log", "more");
    Look();
    EXPECT_EQ(Content("uploads/shell.php") + Content("app.log"), "theirsmore");
    EXPECT_EQ(Alarms(), "");
}

TEST_F(Reconciler, WriteThroughAMappingThatStaysOpen_IsUndone) {
    SDK::FileDescriptor file(::open(File("index.html").c_str(), O_RDWR | O_CLOEXEC));
    void* memory = ::mmap(nullptr, 7, PROT_WRITE, MAP_SHARED, file.Get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    std::memcpy(memory, "defaced", 7);
    Look();
    EXPECT_EQ(Content("index.html"), "welcome");
    ::munmap(memory, 7);
}

/// Names that end in "." have no handling of their own events.
class NamesEndingInADot : public Reconciler {
  protected:
    NamesEndingInADot() {
        data_.Write("site/page.", "page");
        data_.Write("site/lost./deep/page", "page");
        fs::create_symlink("page.", File("link."));
        EXPECT_TRUE(utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                         rule_.ignored_subdir, Engine::RSYNC_BACKUP));
        Look();
        Alarms();
    }
    void Attack() {
        data_.Write("site/shell.php.", "evil");
        data_.Write("site/evil./...", "evil");
        data_.Write("site/page.", "evil");
        fs::remove_all(File("lost."));
        fs::remove(File("link."));
        fs::create_symlink("/etc/passwd", File("link."));
        data_.Write("site/uploads/theirs.", "theirs");
    }
    void ExpectUndone() {
        EXPECT_FALSE(fs::exists(File("shell.php.")) || fs::exists(File("evil.")));
        EXPECT_EQ(Content("page.") + Content("lost./deep/page"), "pagepage");
        EXPECT_EQ(fs::read_symlink(File("link.")), "page.");
        EXPECT_EQ(Content("uploads/theirs."), "theirs");
        const std::string alarms = Alarms();
        for (const char* line :
             {"add shell.php.: removed\n", "add evil./: removed\n", "modify page.: restored\n",
              "delete lost./: restored\n", "modify link.: restored\n"}) {
            EXPECT_NE(alarms.find(line), std::string::npos) << line << "in\n" << alarms;
        }
    }
};

TEST_F(NamesEndingInADot, ChangesWithoutAnEvent_AreUndoneAndReported) {
    Attack();
    Look();
    ExpectUndone();
    Look();
    EXPECT_EQ(Alarms(), "");
}

TEST_F(NamesEndingInADot, ChangesWithAnEvent_AreUndoneWithoutWaitingForALook) {
    Attack();
    const std::pair<const char*, std::uint32_t> events[] = {
        {"shell.php.", IN_CREATE}, {"evil.", IN_CREATE | IN_ISDIR},
        {"page.", IN_MODIFY},      {"lost.", IN_DELETE | IN_ISDIR},
        {"link.", IN_CREATE},      {"uploads/theirs.", IN_CREATE}};
    for (const auto& [name, mask] : events) Tell(File(name), mask);
    EXPECT_TRUE(AwaitInBacklog(
        [&] { return Counter("restores_done") == 3 && Counter("removals_done") == 2; }));
    EXPECT_EQ(Counter("looks"), 1) << "the one before the attack";
    ExpectUndone();
}

TEST_F(NamesEndingInADot, PolicyThatOnlyReports_LeavesThemAndTells) {
    utils_->monitor_only = true;
    data_.Write("site/shell.php.", "theirs");
    Tell(File("shell.php."), IN_CREATE);
    task_.HandleBacklog(now_);
    utils_->monitor_only = false;
    EXPECT_EQ(Content("shell.php."), "theirs");
    EXPECT_EQ(Alarms(), "add shell.php.: reported only\n");
}

/// A page and an excluded directory hidden by a foreign one.
class BehindAMount : private test::OwnMounts, public Reconciler {
  protected:
    void SetUp() override {
        if (!is_own) GTEST_SKIP() << "a mount namespace of its own is not permitted here";
        state_.anchors.Mounts().Remember();
        data_.Write("foreign/shell.php", "theirs");
        data_.Write("foreign/deep/shell.php", "theirs");
        for (const char* place : {"sub", "uploads"}) {
            ASSERT_EQ(::mount(data_.Path("foreign").c_str(), File(place).c_str(), nullptr, MS_BIND,
                              nullptr),
                      0);
        }
    }
};

TEST_F(BehindAMount, Nothing_IsRemovedOrRestored) {
    Look();
    Tell(File("sub"), IN_CREATE | IN_ISDIR);
    Tell(File("sub/deep/shell.php"), IN_CREATE);
    Tell(File("sub/page.html"), IN_DELETE);
    EXPECT_EQ(Engine::Undoer(state_).Remove(rule_, File("sub/shell.php")).outcome,
              Engine::Outcome::kRemovalFailed);
    EXPECT_EQ(Content("sub/shell.php") + Content("sub/deep/shell.php"), "theirstheirs");
    EXPECT_FALSE(fs::exists(File("sub/page.html")));
    EXPECT_EQ(Alarms(), "");
    ASSERT_EQ(::umount2(File("sub").c_str(), MNT_DETACH), 0);
    data_.Write("site/sub/page.html", "evil");
    Tell(File("sub/page.html"), IN_MODIFY);
    EXPECT_EQ(Content("sub/page.html"), "page");
}

TEST_F(Reconciler, PathThatIsStillToBeCopied_IsNotLookedThrough) {
    state_.progress.Restart();
    data_.Write("site/index.html", "an update");
    for (int slice = 0; slice < 10; ++slice) {
        now_ += kPeriod;
        task_.HandleBacklog(now_);
    }
    EXPECT_EQ(Content("index.html"), "an update");
    EXPECT_EQ(Counter("looks"), 0);
}

}  // namespace
