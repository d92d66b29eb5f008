#include <sdk/time/CommandInterrupter.h>

#include <cerrno>

#include "fixtures/EventFixture.h"
#include "support/FileSizeLimit.h"

namespace {

namespace fs = std::filesystem;
using Engine::SentrelStatus;
using test::Event;

TEST_F(Event, ChangeThroughOneHardLink_IsUndoneAtTheOthers) {
    fs::create_hard_link(File("sub/page.html"), File("planted.html"));
    data_.Write("site/planted.html", "evil");
    Tell(File("planted.html"), IN_CREATE);
    EXPECT_EQ(Content("sub/page.html"), "evil");
    EXPECT_TRUE(AwaitInBacklog([&] { return Content("sub/page.html") == "page"; }));
    EXPECT_EQ(Alarms(), "add planted.html: removed\nmodify sub/page.html: restored\n");

    fs::create_hard_link(File("sub/page.html"), File("gone.html"));
    data_.Write("site/gone.html", "evil again");
    fs::remove(File("gone.html"));
    Tell(File("gone.html"), IN_MODIFY);
    fs::create_hard_link(File("index.html"), File("ignored.log"));
    data_.Write("site/ignored.log", "evil");
    Tell(File("ignored.log"), IN_MODIFY);
    EXPECT_TRUE(AwaitInBacklog(
        [&] { return Content("sub/page.html") + Content("index.html") == "pagewelcome"; }));
}

TEST_F(Event, CopyOfAnEarlierRound_DoesNotUndoAnUpdate) {
    StampCopyAnew("index.html");
    state_.progress.Restart();
    // A backup of the earlier round may still run; its copies do not count either.
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

TEST_F(Event, BeforeTheFirstBackup_OnlyFilesWithACopyAreRestoredAndTheRestWaits) {
    state_.progress.Restart();
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

TEST_F(Event, OpenObject_IsNotDeletedNorIsItsDirectory) {
    data_.Write("site/new/leased.html", "without a copy");
    Engine::BackupProgress& progress = state_.progress;
    Engine::OpenObjects open;
    open.Add("new/leased.html", EAGAIN);
    EXPECT_TRUE(progress.NoteComplete(rule_, progress.Round(), open));
    Tell(File("new/leased.html"), IN_CREATE);
    Tell(File("new"), IN_CREATE | IN_ISDIR);
    EXPECT_EQ(Content("new/leased.html"), "without a copy");
    EXPECT_EQ(Alarms(), "add new/leased.html: reported only\nadd new/: reported only\n");
}

TEST_F(Event, MoreChangesThanTheQueueHolds_AreFoundByATreeComparison) {
    state_.progress.Restart();
    for (int at = 0; at < 9; ++at) {
        Tell(data_.Write("site/sub/new" + std::to_string(at), "evil"), IN_CREATE);
    }
    EXPECT_EQ(Counter("events_deferred"), 4);
    EXPECT_EQ(Counter("deferred_overflows"), 5);
    // There are no events for these changes.
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
    EXPECT_TRUE(AwaitInBacklog([&] { return Counter("trees_compared") == 1; }));
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

TEST_F(Event, FailedOrInterruptedRestore_IsRetried) {
    const auto now = std::chrono::steady_clock::now();
    data_.Write("site/index.html", "");
    {
        const test::FileSizeLimit full(1);
        Tell(File("index.html"), IN_MODIFY);
        task_.HandleBacklog(now);
        EXPECT_EQ(Counter("retries"), 0);
        task_.HandleBacklog(now + std::chrono::seconds(20));
        EXPECT_EQ(Counter("retries"), 1);
    }
    task_.HandleBacklog(now + std::chrono::seconds(20));
    EXPECT_EQ(Content("index.html"), "");
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
}

TEST_F(Event, GivenUpChange_IsTriedAgainWithEachLookAndToldOnce) {
    auto now = std::chrono::steady_clock::now();
    // A look of a new round sees only objects that have changed since the round began.
    const auto look = [&] {
        const int looks = Counter("looks");
        state_.progress.Restart();
        state_.progress.BeginCopy();
        NoteBackup();
        while (Counter("looks") == looks) task_.HandleBacklog(now += std::chrono::seconds(1));
        task_.HandleBacklog(now += std::chrono::seconds(1));
    };
    data_.Write("site/index.html", "");
    {
        const test::FileSizeLimit full(1);
        Tell(File("index.html"), IN_MODIFY);
        while (Counter("retries_given_up") == 0) {
            task_.HandleBacklog(now += std::chrono::seconds(5));
        }
        Alarms();
        Engine::WorkClock::SetSource([] { return std::time(nullptr) + 1000; });
        task_.CleanOldMessageFromCache();
        Engine::WorkClock::SetSource(nullptr);
        const int failures = Counter("restores_failed");
        look();
        EXPECT_EQ(Counter("restores_failed"), failures + 1);
        EXPECT_EQ(Counter("retries_given_up"), 1);
        EXPECT_EQ(Alarms(), "");
    }
    look();
    EXPECT_EQ(Content("index.html"), "welcome");
    EXPECT_EQ(state_.status.ToJson({}, {})["backlog"]["given_up"].asInt(), 0);
    EXPECT_EQ(Alarms(), "modify index.html: restored\n");
}

TEST(GivenUpChanges, Keep_IsBoundedAndWakesByWatch) {
    Engine::GivenUpChanges kept(2);
    EXPECT_TRUE(kept.Keep({"/w", "/w/a", IN_MODIFY, {}}) &&
                kept.Keep({"/v", "/v/a", IN_MODIFY, {}}));
    EXPECT_FALSE(kept.Keep({"/w", "/w/b", IN_MODIFY, {}}));
    EXPECT_TRUE(kept.Keep({"/w", "/w/a", IN_DELETE, {}}));
    EXPECT_FALSE(kept.TakeDue());
    kept.Wake("/w");
    const auto due = kept.TakeDue();
    ASSERT_TRUE(due);
    EXPECT_EQ(due->path + std::to_string(due->raw_mask), "/w/a" + std::to_string(IN_DELETE));
    EXPECT_FALSE(kept.TakeDue());
    EXPECT_EQ(kept.Size(), 1U);
}

TEST(RetryQueue, Keep_GivesUpAfterTwelveTries) {
    Engine::RetryQueue failed(1);
    Engine::RetryQueue::Clock::time_point now{};
    using Kept = Engine::RetryQueue::Kept;
    EXPECT_EQ(failed.Keep({"/w", "/w/a", IN_MODIFY, {}, 1}, now), Kept::kYes);
    EXPECT_EQ(failed.Keep({"/w", "/w/b", IN_MODIFY, {}, 1}, now), Kept::kNoRoom);
    int tries = 0;
    for (Kept kept = Kept::kYes; kept == Kept::kYes; ++tries) {
        now += std::chrono::minutes(10);
        auto due = failed.TakeDue(now);
        ASSERT_TRUE(due);
        ++due->attempt;
        kept = failed.Keep(*due, now);
    }
    EXPECT_EQ(tries, 12);
    EXPECT_EQ(failed.Size(), 0U);
}

TEST(FileChange, MergedMask_KeepsTheMoreImportantChange) {
    const auto merged = [](int kept, int later) {
        return Engine::MergedMask(static_cast<std::uint32_t>(kept),
                                  static_cast<std::uint32_t>(later));
    };
    EXPECT_EQ(merged(IN_MODIFY, IN_ATTRIB), static_cast<std::uint32_t>(IN_MODIFY));
    EXPECT_EQ(merged(IN_ATTRIB, IN_MODIFY), static_cast<std::uint32_t>(IN_MODIFY));
    EXPECT_EQ(merged(IN_ATTRIB, IN_MOVED_FROM), static_cast<std::uint32_t>(IN_DELETE));
    EXPECT_EQ(merged(IN_DELETE, IN_CREATE), static_cast<std::uint32_t>(IN_CREATE));
    EXPECT_EQ(merged(IN_DELETE, IN_ATTRIB), static_cast<std::uint32_t>(IN_DELETE));
}

TEST(PendingEvents, Keep_IsBoundedAndMergesThePathsChanges) {
    Engine::PendingEvents deferred(9);
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
    EXPECT_EQ(first[0].raw_mask, static_cast<std::uint32_t>(IN_CREATE));
    EXPECT_EQ(first[1].raw_mask, static_cast<std::uint32_t>(IN_DELETE | IN_ISDIR));
    EXPECT_TRUE(keep("/more", IN_CREATE));
    EXPECT_EQ(deferred.Take(9, [](const std::string& id) { return id == "/w2"; }).size(), 1U);
}

}  // namespace
