#include <delivery/Delivery.h>
#include <gtest/gtest.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace test {

using namespace std::chrono_literals;
using Engine::FileNotify::Counters;
using Engine::FileNotify::DeletionDebounce;
using Engine::FileNotify::Delivery;
using Engine::FileNotify::ModificationDebounce;
using Engine::FileNotify::SendWindow;
using Engine::FileNotify::Subscription;
using Names = std::vector<std::string>;

constexpr std::uint32_t kDir = IN_ISDIR;

/// A delivery with its own clock and a receiver that handles messages on request.
class Burst : public ::testing::Test {
  protected:
    void Add(std::uint32_t mask, const std::string& path) {
        delivery->Add({subscription, "/w" + path, {}, mask, now});
    }
    void AddMany(std::uint32_t mask, const std::string& prefix, int count) {
        for (int i = 0; i < count; ++i) Add(mask, prefix + std::to_string(i));
    }

    /// What a fast receiver is posted now; "-" marks a deletion, "/" a directory.
    Names Posted() {
        Names posted;
        do {
            Handle(queue.size());
            delivery->Flush();
            for (const auto& message : queue) posted.push_back(Print(*message));
        } while (!queue.empty());
        return posted;
    }

    static auto At(const Names& posted, const char* name) {
        return std::find(posted.begin(), posted.end(), name) - posted.begin();
    }

    void Handle(std::size_t count) {
        for (; count > 0; --count) {
            queue.front()->NoteHandling(handling);
            queue.pop_front();
        }
    }

    static std::string Print(const Engine::FileNotifyMessage& message) {
        const std::uint32_t mask = message.GetRawMask();
        std::string text = message.GetEventFilePath().substr(2);
        if ((mask & IN_ISDIR) != 0) text += "/";
        return (mask & (IN_DELETE | IN_MOVED_FROM)) != 0 ? "-" + text : text;
    }

    std::size_t room = 1U << 30;  ///< messages that the receiver's queue still accepts
    std::deque<std::unique_ptr<Engine::FileNotifyMessage>> queue;
    std::chrono::nanoseconds handling{0};
    std::map<std::string, std::size_t> names;  ///< known below each directory
    Counters counters;
    Delivery::Clock::time_point now{1h};
    std::shared_ptr<Subscription> subscription = std::make_shared<Subscription>("one", "/w");
    std::unique_ptr<Delivery> delivery = std::make_unique<Delivery>(
        [this](const std::string&, Framework::Message* message) {
            if (room == 0) return false;
            --room;
            queue.emplace_back(static_cast<Engine::FileNotifyMessage*>(message));
            return true;
        },
        [this](const Subscription&, const std::string& path) -> std::optional<std::size_t> {
            const auto found = names.find(path);
            if (found == names.end()) return std::nullopt;
            return found->second;
        },
        counters, [this] { return now; });
};

TEST_F(Burst, LoneChanges_AreNotHeldBack) {
    Add(IN_DELETE, "/a");
    EXPECT_EQ(Posted(), Names{"-/a"});
    now += DeletionDebounce::kStormGap;
    Add(IN_MOVED_FROM, "/b");
    Add(IN_MOVED_TO, "/c");
    Add(IN_ATTRIB | kDir, "/d");
    EXPECT_EQ(Posted(), (Names{"/c", "/d/", "-/b"}));
    EXPECT_FALSE(delivery->NextDue());
}

TEST_F(Burst, QueueFull_KeepsOrderAndOneEntryPerPathAndMask) {
    room = 0;
    for (int round = 0; round < 3; ++round) {
        for (const char* path : {"/a", "/b"}) Add(IN_MODIFY, path);
        Add(IN_DELETE, "/c");
    }
    EXPECT_EQ(Posted(), Names());
    EXPECT_EQ(counters.pending, 3U);
    EXPECT_EQ(counters.events_merged, 6U);
    room = 2;
    EXPECT_EQ(Posted(), (Names{"/a", "/b"}));
    now += DeletionDebounce::kMaxQuiet;
    Add(IN_MODIFY, "/a");  // delivered before, so it is new again
    room = 5;
    EXPECT_EQ(Posted(), (Names{"/a", "-/c"}));
    EXPECT_EQ(counters.pending, 0U);
    EXPECT_EQ(counters.events_delivered, 4U);
}

TEST_F(Burst, SubscriptionRevoked_OnlyItsChangesAreDropped) {
    Add(IN_MODIFY, "/a");
    subscription->Revoke();
    subscription = std::make_shared<Subscription>("one", "/w");
    Add(IN_MODIFY, "/a");
    EXPECT_EQ(Posted(), Names{"/a"});
    EXPECT_EQ(counters.events_dropped, 1U);
}

// Thousands of files that are rewritten in a loop must not delay the page that changes once.
TEST_F(Burst, HotFiles_GoBehindOthersAndGetTheirTurns) {
    const auto change = [this](const Names& paths) {
        for (const std::string& path : paths) Add(IN_MODIFY, path);
    };
    room = 0;
    change({"/hot1", "/hot2", "/written-in-two-calls", "/written-in-two-calls"});
    now += 20ms;
    change({"/hot1", "/hot2", "/page"});
    room = 2;
    EXPECT_EQ(Posted(), (Names{"/written-in-two-calls", "/page"}));
    change({"/hot1", "/a", "/b", "/c"});
    room = 20;
    EXPECT_EQ(Posted(), (Names{"/a", "/hot1", "/b", "/c", "/hot2"}));
    now += 2s;
    change({"/hot1", "/a"});
    EXPECT_EQ(Posted(), (Names{"/hot1", "/a"}));
}

TEST_F(Burst, Deletions_WaitForAQuietPeriodAndOthersDoNot) {
    Add(IN_DELETE, "/a");
    EXPECT_EQ(Posted(), Names{"-/a"});
    now += 1ms;
    Add(IN_DELETE, "/b");
    Add(IN_MODIFY, "/page");
    EXPECT_EQ(Posted(), Names{"/page"});
    now += DeletionDebounce::kMinQuiet - 1us;
    Add(IN_DELETE, "/c");
    EXPECT_EQ(Posted(), Names());
    ASSERT_TRUE(delivery->NextDue());
    EXPECT_EQ(*delivery->NextDue(), now + 2 * DeletionDebounce::kDefaultCost);
    now = *delivery->NextDue();
    EXPECT_EQ(Posted(), (Names{"-/b", "-/c"}));
    EXPECT_EQ(counters.deletions_debounced, 2U);
}

TEST_F(Burst, Deletions_WaitNoLongerThanUndoingThemTakes) {
    handling = 200us;
    Add(IN_DELETE, "/a");
    EXPECT_EQ(Posted(), Names{"-/a"});
    handling = 10us;  // as for what a restored directory has brought back already
    Add(IN_DELETE, "/b");
    EXPECT_EQ(Posted(), Names());
    EXPECT_EQ(delivery->NextDue(), now + DeletionDebounce::kMinQuiet);
    AddMany(IN_DELETE, "/c", 49);
    EXPECT_EQ(delivery->NextDue(), now + 50 * 200us);
    AddMany(IN_DELETE, "/d", 1000);
    EXPECT_EQ(delivery->NextDue(), now + DeletionDebounce::kMaxQuiet);
    now += DeletionDebounce::kMaxQuiet;
    EXPECT_EQ(Posted().size(), 1050U);
    Add(IN_DELETE, "/e");
    Add(IN_DELETE, "/f");
    EXPECT_EQ(Posted(), Names());
    EXPECT_EQ(delivery->NextDue(), now + DeletionDebounce::kMinQuiet);
}

TEST_F(Burst, DeletionOfWhatWaits_DropsEarlierChanges) {
    Add(IN_ATTRIB | kDir, "/d");
    Add(IN_MODIFY, "/f");
    Add(IN_ATTRIB, "/f");
    Add(IN_MODIFY, "/g");
    AddMany(IN_DELETE, "/d/", 2);
    Add(IN_DELETE | kDir, "/d");
    Add(IN_DELETE, "/f");
    Add(IN_CREATE, "/f");
    Add(IN_ATTRIB, "/f");
    EXPECT_EQ(Posted(), (Names{"/g", "/f", "/f"}));
    now += DeletionDebounce::kMaxQuiet;
    EXPECT_EQ(Posted(), (Names{"-/d/", "-/d/0", "-/d/1", "-/f"}));
    EXPECT_EQ(counters.events_merged, 3U);
    EXPECT_EQ(counters.pending, 0U);
}

TEST_F(Burst, RestoreTemporary_IsAnnouncedOnlyWhenItStays) {
    const std::string temporary = "/d/.morvane-restore-0123456789abcdef";
    Add(IN_CREATE, temporary);
    Add(IN_MOVED_TO, "/d/page");
    EXPECT_EQ(Posted(), Names{"/d/page"});
    Add(IN_MOVED_FROM, temporary);
    EXPECT_EQ(counters.pending, 0U);
    EXPECT_FALSE(delivery->NextDue());
    Add(IN_DELETE, "/x");
    EXPECT_EQ(Posted(), Names{"-/x"});  // no storm
    Add(IN_CREATE, temporary);
    Add(IN_CREATE, temporary + "0");
    EXPECT_EQ(Posted(), Names{temporary + "0"});
    now += ModificationDebounce::kQuietPeriod;
    EXPECT_EQ(Posted(), Names{temporary});
    Add(IN_MOVED_FROM, temporary);
    EXPECT_EQ(Posted(), Names{"-" + temporary});
}

TEST_F(Burst, StormWithoutPause_DeletionsAreLetGoAtTheBound) {
    const auto begin = now;
    for (int i = 0; now < begin + DeletionDebounce::kMaxDelay; ++i, now += 2ms) {
        Add(IN_DELETE, "/" + std::to_string(i));
        Add(IN_DELETE, "/x" + std::to_string(i));
        EXPECT_EQ(Posted(), Names());
    }
    EXPECT_EQ(Posted().size(), 300U);
}

TEST_F(Burst, SameFilesChangedAllTheTime_OnlyInAStormTheyWaitBoundedAndTheFirstChangeDoesNot) {
    Add(IN_MODIFY, "/page");
    EXPECT_EQ(Posted(), Names{"/page"});
    Add(IN_MODIFY, "/page");
    EXPECT_EQ(Posted(), Names{"/page"});
    delivery->SetStorm(true);
    Add(IN_MODIFY, "/page");
    EXPECT_EQ(Posted(), Names{"/page"});
    const auto begin = now;
    for (; now < begin + ModificationDebounce::kMaxDelay; now += 1ms) {
        Add(IN_MODIFY, "/page");
        EXPECT_EQ(Posted(), Names());
        Add(IN_MODIFY, "/new" + std::to_string((now - begin) / 1ms));
        EXPECT_EQ(Posted().size(), 1U);
    }
    now += ModificationDebounce::kQuietPeriod;
    EXPECT_EQ(Posted(), Names{"/page"});
    Add(IN_MODIFY, "/page");
    delivery->SetStorm(false);
    EXPECT_EQ(Posted(), Names());
    ASSERT_EQ(delivery->NextDue(), now + ModificationDebounce::kQuietPeriod);
    now = *delivery->NextDue();
    EXPECT_EQ(Posted(), Names{"/page"});
    EXPECT_FALSE(delivery->NextDue());
    EXPECT_EQ(counters.pending, 0U);
}

TEST_F(Burst, DirectoryDeleted_GoesAheadOfAllBelowIt) {
    Add(IN_MODIFY, "/top/a/other");
    for (const char* inner : {"/top/a", "/top/b"}) {
        AddMany(IN_DELETE, std::string(inner) + "/", 2);
        Add(IN_DELETE | kDir, inner);
    }
    Add(IN_DELETE | kDir, "/top");
    Add(IN_MODIFY, "/other");
    EXPECT_EQ(Posted(), Names{"/other"});  // what is modified below waits with its directory
    now += DeletionDebounce::kMaxQuiet;
    const Names posted = Posted();
    ASSERT_EQ(posted.size(), 8U);
    EXPECT_EQ(posted.front(), "-/top/");
    EXPECT_LT(At(posted, "-/top/a/"), At(posted, "-/top/a/0"));
    EXPECT_LT(At(posted, "-/top/b/"), At(posted, "-/top/b/0"));
}

TEST_F(Burst, DirectoryComesBackDuringTheStorm_IsNotHeldBack) {
    AddMany(IN_DELETE, "/d/", 2);
    Add(IN_DELETE | kDir, "/d");
    Add(IN_MODIFY, "/d/f");
    Add(IN_CREATE | kDir, "/d");
    Add(IN_CREATE, "/d/new");
    EXPECT_EQ(Posted(), (Names{"/d/", "/d/f", "/d/new"}));
    now += DeletionDebounce::kMaxQuiet;
    EXPECT_EQ(Posted(), (Names{"-/d/0", "-/d/1", "-/d/"}));
}

TEST_F(Burst, ContentsWithoutEnd_OthersTakeTurnsAfterTheirTime) {
    AddMany(IN_MODIFY, "/early", 2);
    Add(IN_ATTRIB | kDir, "/d");
    AddMany(IN_DELETE, "/lost", 2);
    AddMany(IN_MODIFY, "/more", 2);
    now += DeletionDebounce::kMaxDelay;
    delivery->Flush();  // all the receiver takes for now
    Names posted;
    for (int step = 0; !queue.empty(); ++step) {
        posted.push_back(Print(*queue.front()));
        Handle(1);
        if (step < 40) Add(IN_MODIFY, "/late" + std::to_string(step));
        delivery->Flush();
    }
    EXPECT_EQ(posted.size(), 47U);
    EXPECT_LT(At(posted, "/more1"), At(posted, "/d/"));
    EXPECT_LT(At(posted, "/d/"), At(posted, "-/lost0"));
    EXPECT_LT(At(posted, "-/lost1"), 10 + static_cast<int>(SendWindow::kMaxSize));
}

class Coalescing : public Burst {
  protected:
    /// Releases the deletions, handles the first ones at `cost` each and returns what follows.
    Names PostedAfterTheFirst(std::chrono::nanoseconds cost) {
        now += DeletionDebounce::kMaxQuiet;
        delivery->Flush();
        EXPECT_EQ(queue.size(), SendWindow::kMaxDeletions);
        handling = cost;
        Handle(queue.size());
        handling = 0ns;
        return Posted();
    }
};

TEST_F(Coalescing, ManyDeletionsAndSlowRestores_DirectoryIsAnnouncedFirst) {
    names["/w/d"] = 10;
    AddMany(IN_DELETE, "/d/", 24);
    const Names posted = PostedAfterTheFirst(SendWindow::kSlowDeletion);
    EXPECT_EQ(posted.size(), 17U);
    EXPECT_EQ(posted.front(), "/d/");
    EXPECT_EQ(counters.directories_announced, 1U);
    EXPECT_EQ(counters.pending, 0U);
}

TEST_F(Coalescing, FewDeletionsOrLargeDirectoryOrNoRestores_EachGoesByItself) {
    names = {{"/w/d", 10}, {"/w/huge", 100000}, {"/w/foreign", 10}};
    AddMany(IN_DELETE, "/d/", 23);
    EXPECT_EQ(PostedAfterTheFirst(SendWindow::kSlowDeletion).front(), "-/d/8");
    AddMany(IN_DELETE, "/huge/", 24);
    EXPECT_EQ(PostedAfterTheFirst(SendWindow::kSlowDeletion).front(), "-/huge/8");
    AddMany(IN_DELETE, "/foreign/", 24);
    EXPECT_EQ(PostedAfterTheFirst(30us).front(), "-/foreign/8");
    AddMany(IN_DELETE, "/gone/", 24);
    EXPECT_EQ(PostedAfterTheFirst(SendWindow::kSlowDeletion).front(), "-/gone/8");
}

TEST_F(Coalescing, DeletionsInManyDirectories_TheCheapestSetIsAnnounced) {
    names = {{"/w", 500000}, {"/w/top", 120}, {"/w/top/a", 50}, {"/w/top/b", 50}, {"/w/far", 10}};
    AddMany(IN_DELETE, "/first", 8);
    AddMany(IN_DELETE, "/top/a/", 40);
    AddMany(IN_DELETE | kDir, "/top/b/sub", 40);
    Add(IN_DELETE, "/top/b/sub1/below");
    AddMany(IN_DELETE, "/far/", 20);
    const Names posted = PostedAfterTheFirst(6ms);
    EXPECT_EQ(counters.directories_announced, 2U);
    EXPECT_EQ((std::set<std::string>(posted.begin(), posted.begin() + 2)),
              (std::set<std::string>{"/top/", "/far/"}));
}

TEST_F(Burst, Window_FollowsTheReceiversPaceAndWakesBeforeItIsEmpty) {
    AddMany(IN_MODIFY, "/f", 1000);
    delivery->Flush();
    const std::size_t first = queue.size();
    EXPECT_GE(first, SendWindow::kMinSize);
    EXPECT_LE(first, SendWindow::kMaxSize);
    pollfd wakes{delivery->WakeUp().Fd(), POLLIN, 0};
    Handle(first / 2 - 1);
    EXPECT_EQ(::poll(&wakes, 1, 0), 0);
    Handle(2);
    EXPECT_EQ(::poll(&wakes, 1, 0), 1);
    Add(IN_MODIFY, "/f999");  // waits, so it is merged
    EXPECT_EQ(counters.events_merged, 1U);

    SendWindow window(nullptr);
    const Engine::FileNotifyMessage message("/w", "/w/f", "", IN_MODIFY, now);
    const auto dealt = [&](std::chrono::nanoseconds cost) {
        window.OnPost(false);
        window.MessageGone(message, cost);
    };
    dealt(50us);
    for (int i = 0; i < 60; ++i) dealt(10us);
    EXPECT_EQ(window.Size(), SendWindow::kMaxSize);
    dealt(100ms);
    EXPECT_EQ(window.Size(), SendWindow::kMinSize);
    for (int i = 0; i < 100; ++i) dealt(30us);
    EXPECT_EQ(window.Size(), SendWindow::kMaxSize);
}

TEST_F(Burst, MessagesOutliveTheDelivery_AndRevokedSubscriptionsDropWhatWaits) {
    AddMany(IN_MODIFY, "/f", 1000);
    AddMany(IN_DELETE, "/g", 10);
    delivery->Flush();
    subscription->Revoke();
    delivery->DropRevoked();
    EXPECT_TRUE(delivery->Empty());
    EXPECT_FALSE(delivery->NextDue());
    EXPECT_EQ(counters.pending, 0U);
    EXPECT_EQ(counters.events_dropped + queue.size(), 1010U);
    std::thread receiver([&] { Handle(queue.size() / 2); });
    delivery.reset();
    receiver.join();
    Handle(queue.size());
}

TEST_F(Burst, AtRandom_EveryChangeIsDelivered) {
    std::mt19937 random(7);
    const std::vector<std::uint32_t> masks = {
        IN_MODIFY,        IN_CREATE,        IN_DELETE,          IN_CREATE | kDir,
        IN_DELETE | kDir, IN_ATTRIB | kDir, IN_MOVED_TO | kDir, IN_MOVED_FROM};
    std::set<std::pair<std::uint32_t, std::string>> waiting;
    const auto handle = [&](std::size_t count) {
        for (; count > 0 && !queue.empty(); --count) {
            const auto& message = *queue.front();
            waiting.erase({message.GetRawMask(), message.GetEventFilePath().substr(2)});
            Handle(1);
        }
    };
    for (int step = 0; step < 20000; ++step) {
        std::string path;
        for (unsigned int depth = 1 + random() % 4; depth > 0; --depth) {
            path += std::string("/") + "abc"[random() % 3];
        }
        const std::uint32_t mask = masks[random() % masks.size()];
        Add(mask, path);
        if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
            waiting.erase({IN_MODIFY | (mask & kDir), path});
            waiting.erase({IN_ATTRIB | (mask & kDir), path});
        }
        waiting.emplace(mask, path);
        now += std::chrono::microseconds(random() % 3000);
        if (random() % 4 == 0) delivery->Flush();
        handle(random() % 3);
    }
    now += DeletionDebounce::kMaxDelay;
    for (int round = 0; round < 1000 && !delivery->Empty(); ++round) {
        delivery->Flush();
        handle(queue.size());
        now += DeletionDebounce::kMaxQuiet;
    }
    handle(queue.size());
    EXPECT_TRUE(delivery->Empty());
    EXPECT_TRUE(waiting.empty()) << waiting.size();
    EXPECT_EQ(counters.pending, 0U);
}

}  // namespace test
