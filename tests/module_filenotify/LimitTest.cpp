#include <kernel/QueueLimit.h>

#include <thread>

#include "NotifyFixture.h"

namespace test {

using Limits = NotifyTest;

TEST_F(Limits, EventsLost_EverythingIsAnnouncedAndTheIndexPutRight) {
    Make({"keep/file", "lost/file"});
    Watch(Root());
    faults_.stalled = true;
    fs::remove_all(Root("lost"));
    site_.Write("root/new/deep/file", "x");
    TouchFile(Root("keep/file"));
    faults_.forget_unread = true;
    faults_.stalled = false;
    EXPECT_TRUE(Sees(IN_CREATE, Root("new/deep/file")));
    EXPECT_TRUE(Sees(IN_MODIFY, Root("keep/file")));
    const auto seen = SeenUntilNow();
    EXPECT_TRUE(Has(seen, IN_DELETE | IN_ISDIR, Root("lost"))) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_ATTRIB | IN_ISDIR, Root("keep"))) << Print(seen);
    EXPECT_TRUE(Has(seen, IN_CREATE | IN_ISDIR, Root("new"))) << Print(seen);
    EXPECT_EQ(Counter("overflows"), 1U);
    EXPECT_EQ(WatchStatus(Root())["directories"].asInt(), 4);
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("new/deep/later")));
}

TEST_F(Limits, RealFloodWhileTheReaderStalls_NothingIsLost) {
    Make({"d/"});
    Watch(Root());
    faults_.stalled = true;
    constexpr int kFiles = 9000;  // at least two events each: more than the kernel keeps
    for (int i = 0; i < kFiles; ++i) TouchFile(Root("d/f" + std::to_string(i)));
    fs::create_directory(Root("late"));
    TouchFile(Root("late/f"));
    faults_.stalled = false;
    EXPECT_TRUE(WaitFor([&] { return Counter("overflows") > 0; }, kDeadline));
    EXPECT_TRUE(Sees(IN_CREATE, Root("late/f")));
    // The files, late and late/f.
    const auto all_announced = [&] {
        return Announced(IN_CREATE, receiver_).size() == kFiles + 2U;
    };
    EXPECT_TRUE(WaitFor(all_announced, kDeadline));
}

TEST_F(Limits, EventsLostAgainAndAgainWithASlowReceiver_WalksWaitAndEachObjectIsAnnounced) {
    constexpr int kFiles = 40000;
    const auto path = [&](int i) {
        return Root("d" + std::to_string(i / 1000) + "/f" + std::to_string(i));
    };
    for (int i = 0; i < kFiles; i += 1000) fs::create_directory(fs::path(path(i)).parent_path());
    for (int i = 0; i < kFiles; ++i) TouchFile(path(i));
    fs::create_directories(site_.Path("other/a/b"));
    auto slow = NewReceiver("slow");
    slow->Ask(Root(), kMasks, Tree());
    ASSERT_TRUE(Reaches(Root(), "ready"));
    slow->SetReading(false);
    for (std::uint64_t overflow = 1; overflow <= 3; ++overflow) {
        faults_.forget_unread = true;
        TouchFile(Root("wakes"));
        ASSERT_TRUE(CounterIs("overflows", overflow));
    }
    ASSERT_TRUE(WaitFor([&] { return Counter("pending_events") >= 32768; }, kDeadline));
    fs::remove(path(0));
    ASSERT_TRUE(WaitFor([&] { return Counter("pending_events") > 32768; }, kDeadline));
    EXPECT_TRUE(WaitFor([&] { return Counter("walk_queue") > 0; }, kDeadline));
    EXPECT_LT(Counter("pending_events"), 38000U);
    // First walks do not wait for the slow receiver.
    Watch(site_.Path("other"));
    slow->SetReading(true);
    ASSERT_TRUE(WaitFor([&] { return Counter("walk_queue") + Counter("pending_events") == 0; },
                        2 * kDeadline));
    const auto modified = Announced(IN_MODIFY, slow);
    for (int i = 1; i < kFiles; ++i) EXPECT_EQ(modified.count(path(i)), 1U) << path(i);
    EXPECT_TRUE(Has(slow->Seen(), IN_DELETE, path(0)));
}

TEST_F(Limits, ReceiverQueueFull_DeliveryIsOnlyLate) {
    auto slow = NewReceiver("slow", 1);
    slow->Ask(Root(), {IN_CREATE}, Tree());
    ASSERT_TRUE(Reaches(Root(), "ready"));
    slow->SetReading(false);
    constexpr int kFiles = 300;
    for (int i = 0; i < kFiles; ++i) TouchFile(Root("f" + std::to_string(i)));
    ASSERT_TRUE(WaitFor([&] { return Counter("pending_events") >= kFiles - 2; }, kDeadline));
    slow->SetReading(true);
    ASSERT_TRUE(WaitFor([&] { return slow->Seen().size() == kFiles; }, kDeadline));
    const auto seen = slow->Seen();
    for (int i = 0; i < kFiles; ++i) {
        EXPECT_EQ(seen[static_cast<std::size_t>(i)].path, Root("f" + std::to_string(i)));
    }
    EXPECT_TRUE(CounterIs("pending_events", 0));
    EXPECT_EQ(Counter("events_dropped"), 0U);
}

TEST_F(Limits, WatchesRunOut_IsShownAndRepairedLater) {
    Make({"a/b/", "c/"});
    Watch(Root());
    faults_.watches_left = 0;
    site_.Write("root/new/in/file", "x");
    ASSERT_TRUE(Reaches(Root(), "degraded"));
    EXPECT_GT(WatchStatus(Root())["unwatched"].asInt(), 0);
    Json::Value status;
    Framework::Engine::Instance().Queries().Ask("status.filenotify", {}, status);
    const Json::Value& example = status["filenotify"]["unwatched_examples"][0];
    EXPECT_EQ(example["path"].asString().rfind(Root("new"), 0), 0U) << status.toStyledString();
    EXPECT_NE(example["reason"].asString().find("max_user_watches"), std::string::npos);
    // Polling finds new and deleted names, but no changes of content.
    EXPECT_TRUE(Sees(IN_CREATE, Root("new/in/file")));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("new/in/other")));
    fs::remove(Root("new/in/other"));
    EXPECT_TRUE(Sees(IN_DELETE, Root("new/in/other")));
    TouchFile(Root("new/in/file"));
    faults_.watches_left = 1000;
    EXPECT_TRUE(Sees(IN_MODIFY, Root("new/in/file")));
    EXPECT_TRUE(Reaches(Root(), "ready"));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root("new/in/seen")));
}

TEST_F(Limits, NoWatchEvenForTheParents_RootsComeAndGoIsFoundByRetrying) {
    faults_.watches_left = 0;
    const std::string root = site_.Path("later");
    receiver_->Ask(root, kMasks, Tree());
    ASSERT_TRUE(Reaches(root, "waiting"));
    fs::create_directory(root);
    TouchFile(root + "/f");
    faults_.watches_left = 1000;
    EXPECT_TRUE(Sees(IN_CREATE | IN_ISDIR, root));
    EXPECT_TRUE(Sees(IN_CREATE, root + "/f"));
    EXPECT_TRUE(Reaches(root, "ready"));
}

TEST_F(Limits, TreeDeeperThanAnyPath_IsCountedAndTheRestIsWatched) {
    Watch(Root());
    const fs::path before = fs::current_path();
    fs::current_path(Root());
    const std::string name(200, 'd');
    int made = 0;
    for (; made < 25 && ::mkdir(name.c_str(), 0755) == 0 && ::chdir(name.c_str()) == 0; ++made) {
    }
    fs::current_path(before);
    ASSERT_EQ(made, 25);
    EXPECT_TRUE(Reaches(Root(), "degraded"));
    EXPECT_TRUE(SeesTouch(IN_CREATE, Root(name + "/f")));
    fs::remove_all(Root(name));
    EXPECT_TRUE(Reaches(Root(), "ready"));
}

TEST(QueueLimit, IsRaisedWhileAnInstanceIsOpenedAndPutBack) {
    using Engine::FileNotify::QueueLimit;
    TempDir dir;
    Poco::Logger& logger = Poco::Logger::get("test");
    const std::string file = dir.Write("limit", "16384\n");
    std::string seen;
    const auto open = [&] {
        seen = TempDir::Read(file);
        return 7;
    };
    QueueLimit limit(file, 1048576, &logger);
    EXPECT_EQ(limit.OpenRaised(open), 7);
    EXPECT_EQ(seen, "1048576\n");
    EXPECT_EQ(TempDir::Read(file), "16384\n");
    EXPECT_EQ(limit.InForce(), 1048576U);
    // Somebody else sets it meanwhile: that stays.
    limit.OpenRaised([&] {
        dir.Write("limit", "99\n");
        return 0;
    });
    EXPECT_EQ(TempDir::Read(file), "99\n");
    for (const std::uint32_t wanted : {0, 50}) {
        QueueLimit modest(file, wanted, &logger);
        modest.OpenRaised(open);
        EXPECT_EQ(seen, "99\n");
        EXPECT_EQ(modest.InForce(), 99U);
        EXPECT_EQ(modest.Problem(), "");
    }
    // Cannot be written: opened all the same, and reported.
    QueueLimit refused(dir.Path(), 1048576, &logger);
    EXPECT_EQ(refused.OpenRaised(open), 7);
    EXPECT_NE(refused.Problem().find("1048576: Is a directory"), std::string::npos)
        << refused.Problem();
}

TEST_F(Limits, StoppedInTheMiddleOfAStorm_EndsInOrder) {
    Watch(Root());
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        for (int i = 0; !stop; ++i) {
            const std::string dir = Root("d" + std::to_string(i % 50));
            fs::create_directories(dir + "/e");
            TouchFile(dir + "/e/f");
            fs::remove_all(dir);
        }
    });
    EXPECT_TRUE(WaitFor([&] { return Counter("events_received") > 2000; }, kDeadline));
    engine_.Stop();
    stop = true;
    storm.join();
}

}  // namespace test
