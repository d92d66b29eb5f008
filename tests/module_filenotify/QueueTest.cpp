#include <delivery/Delivery.h>
#include <gtest/gtest.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>
#include <tree/WalkQueue.h>
#include <tree/Watch.h>

#include <memory>
#include <string>
#include <vector>

namespace test {

using Engine::FileNotify::Counters;
using Engine::FileNotify::DeletionDebounce;
using Engine::FileNotify::Delivery;
using Engine::FileNotify::DirNode;
using Engine::FileNotify::PendingChange;
using Engine::FileNotify::Subscription;
using Engine::FileNotify::WalkQueue;

class DeliveryTest : public ::testing::Test {
  protected:
    static PendingChange Change(const std::shared_ptr<Subscription>& subscription,
                                const std::string& path, std::uint32_t mask) {
        return {subscription, path, {}, mask, {}};
    }

    bool Post(const std::string& receiver, Framework::Message* message) {
        if (room <= 0) return false;
        --room;
        const std::unique_ptr<Engine::FileNotifyMessage> owned(
            static_cast<Engine::FileNotifyMessage*>(message));
        posted.push_back(receiver + owned->GetEventFilePath());
        return true;
    }

    int room = 0;
    std::vector<std::string> posted;
    Counters counters;
    Delivery delivery{[this](const std::string& receiver, Framework::Message* message) {
                          return Post(receiver, message);
                      },
                      [](const Subscription&, const std::string&) { return std::nullopt; },
                      counters, [this] { return now; }};
    Delivery::Clock::time_point now{std::chrono::hours(1)};
    std::shared_ptr<Subscription> one = std::make_shared<Subscription>("one", "/w");
    std::shared_ptr<Subscription> two = std::make_shared<Subscription>("two", "/w");
};

TEST_F(DeliveryTest, NoRoom_KeepsOrderAndOneEntryPerPathAndMask) {
    for (int round = 0; round < 3; ++round) {
        delivery.Add(Change(one, "/a", IN_MODIFY));
        delivery.Add(Change(one, "/b", IN_MODIFY));
        delivery.Add(Change(one, "/c", IN_DELETE));
    }
    delivery.Flush();
    EXPECT_EQ(counters.pending, 3U);
    EXPECT_EQ(counters.events_merged, 6U);
    room = 2;
    delivery.Flush();
    EXPECT_EQ(posted, (std::vector<std::string>{"one/a", "one/b"}));
    now += DeletionDebounce::kMaxQuiet;
    delivery.Add(Change(one, "/a", IN_MODIFY));  // delivered before: news again
    room = 5;
    delivery.Flush();
    EXPECT_EQ(posted, (std::vector<std::string>{"one/a", "one/b", "one/a", "one/c"}));
    EXPECT_TRUE(delivery.Empty());
    EXPECT_EQ(counters.pending, 0U);
    EXPECT_EQ(counters.events_delivered, 4U);
}

TEST_F(DeliveryTest, TicketRevoked_ItsChangesAreDroppedAndOthersAreNot) {
    const auto again = std::make_shared<Subscription>("one", "/w");
    delivery.Add(Change(one, "/a", IN_MODIFY));
    delivery.Add(Change(again, "/a", IN_MODIFY));
    delivery.Add(Change(two, "/a", IN_MODIFY));
    one->Revoke();
    room = 9;
    delivery.Flush();
    EXPECT_EQ(posted, (std::vector<std::string>{"one/a", "two/a"}));
    EXPECT_EQ(counters.events_dropped, 1U);
    EXPECT_FALSE(one->IsValid());
}

// Thousands of files that are rewritten all the time must not delay the page that changes once.
TEST_F(DeliveryTest, RewrittenFiles_GoBehindOthersAndHaveTheirTurns) {
    const auto change = [this](const std::string& path) {
        delivery.Add(Change(one, path, IN_MODIFY));
    };
    const auto flush = [this](int messages) {
        room = messages;
        posted.clear();
        delivery.Flush();
        return posted;
    };
    using Posted = std::vector<std::string>;
    for (const char* path : {"/w/hot1", "/w/hot2", "/w/written-in-two-calls"}) change(path);
    change("/w/written-in-two-calls");
    now += std::chrono::milliseconds(20);
    for (const char* path : {"/w/hot1", "/w/hot2"}) change(path);
    change("/w/page");
    EXPECT_EQ(flush(2), (Posted{"one/w/written-in-two-calls", "one/w/page"}));
    for (const char* path : {"/w/hot1", "/w/a", "/w/b", "/w/c"}) change(path);
    EXPECT_EQ(flush(9), (Posted{"one/w/a", "one/w/hot1", "one/w/b", "one/w/c", "one/w/hot2"}));
    now += std::chrono::seconds(2);
    for (const char* path : {"/w/hot1", "/w/a"}) change(path);
    EXPECT_EQ(flush(9), (Posted{"one/w/hot1", "one/w/a"}));
}

TEST(WalkQueue, ReasonsAddUpAndCancelledJobsAreSkipped) {
    WalkQueue queue;
    DirNode a;
    DirNode b;
    Engine::FileNotify::Watch owner;
    queue.Push(a, WalkQueue::kFirst, &owner);
    queue.Push(b, WalkQueue::kFirst, &owner);
    queue.Push(a, WalkQueue::kReconcile, nullptr);
    EXPECT_EQ(owner.jobs, 2U);
    queue.Cancel(b);
    EXPECT_EQ(owner.jobs, 1U);
    EXPECT_TRUE(queue.IsReconciling());
    EXPECT_EQ(queue.Pop(WalkQueue::kIndexing).node, nullptr);
    const WalkQueue::Job job = queue.Pop(WalkQueue::kAnnouncing);
    EXPECT_EQ(job.node, &a);
    EXPECT_EQ(job.reasons, WalkQueue::kFirst | WalkQueue::kReconcile);
    EXPECT_EQ(owner.jobs, 0U);
    EXPECT_FALSE(queue.IsReconciling());
    EXPECT_TRUE(queue.Empty());
    queue.Push(a, WalkQueue::kVerify, nullptr);
    EXPECT_EQ(queue.Pop(WalkQueue::kIndexing).node, &a);
}

}  // namespace test
