#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "EngineFixture.h"

namespace test {

using Framework::Task;

class MessagingTest : public EngineTest {
  protected:
    ScriptedTask sender_{"sender"};
    std::string reply_;
};

TEST_F(MessagingTest, QueueCannotTake_MessageStaysTheSenders) {
    ScriptedTask task("task", Framework::TaskCondition::kPeriodic, 2);
    CountedMessage refused;
    EXPECT_FALSE(Task::SendAgileMsg(&task, &refused));  // not registered
    EXPECT_FALSE(task.EnqueueMsg(&refused));
    EXPECT_FALSE(engine_.PostMessage("task", &refused));
    EXPECT_FALSE(Task::SendAgileMsg(nullptr, &refused));
    task.on_run = [] { return 0; };  // never consumes
    task.on_uninit = [&] { return !Task::SendAgileMsg(&task, &refused); };
    ASSERT_TRUE(Register(task));
    EXPECT_TRUE(Task::SendAgileMsg(&task, new CountedMessage));
    EXPECT_TRUE(engine_.PostMessage("task", new CountedMessage));
    EXPECT_FALSE(Task::SendAgileMsg(&task, &refused));  // full
    EXPECT_EQ(StatusOf("task").queue_length, 2U);
    Unregister(task);
    EXPECT_EQ(CountedMessage::alive, 1);
}

TEST_F(MessagingTest, MessagesAreLeftInTheQueue_NextWaitEndsAtOnce) {
    ScriptedTask task("task");
    std::atomic<int> consumed{0};
    task.on_init = [&] {
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(Task::SendAgileMsg(&task, new CountedMessage));
        return true;
    };
    task.on_run = [&] {
        task.Waiter().WaitAndHandleEvent(60'000, 10);
        consumed += static_cast<int>(task.BulkConsumeMsg(1));
        return 0;
    };
    ASSERT_TRUE(Register(task));
    EXPECT_TRUE(WaitFor([&] { return consumed == 3; }, kDeadline));
    EXPECT_EQ(CountedMessage::alive, 0);
    Unregister(task);
}

TEST(EventWaiter, SourcesAndWakes_SourcesGoFirstAndNoWakeIsLost) {
    Framework::EventWaiter waiter;
    const SDK::FileDescriptor first(::eventfd(1, EFD_CLOEXEC));
    const SDK::FileDescriptor second(::eventfd(1, EFD_CLOEXEC));
    int calls = 0;
    ASSERT_TRUE(waiter.AddSource(first.Get(), [&] { ++calls; }));
    ASSERT_TRUE(waiter.AddSource(second.Get(), [&] {
        ++calls;
        waiter.RemoveSource(second.Get());
    }));
    EXPECT_FALSE(waiter.AddSource(-1, [] {}));
    waiter.Wake();
    EXPECT_EQ(waiter.WaitAndHandleEvent(60'000, 10), 2);
    EXPECT_EQ(waiter.WaitAndHandleEvent(60'000, 10), 1);
    EXPECT_EQ(calls, 3);
    waiter.RemoveSource(first.Get());
    EXPECT_EQ(waiter.WaitAndHandleEvent(60'000, 10), -1);  // the wake
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 10), -1);       // the time
    ASSERT_TRUE(waiter.AddSource(first.Get(), [&] { ++calls; }));
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 0), -1);
    EXPECT_EQ(calls, 3);
}

TEST_F(MessagingTest, DirectMessage_GivesTheHandlersOutcomeAndIsFreed) {
    ScriptedTask task("task");
    int result = 0;
    task.on_direct = [&](Framework::Message*, std::string& reply) {
        reply = "id";
        if (result > 0) throw std::runtime_error("refused");
        return result;
    };
    EXPECT_EQ(sender_.SendDirectMsg("task", new CountedMessage), -1);
    ASSERT_TRUE(Register(task));
    EXPECT_EQ(sender_.SendDirectMsg("task", new CountedMessage), 0);
    EXPECT_EQ(sender_.SyncSendDirectMsg("task", new CountedMessage, reply_, 1000, 2), 0);
    EXPECT_EQ(reply_, "id");
    for (result = -1; result < 2; result += 2) {  // it fails, then it throws
        EXPECT_EQ(sender_.SendDirectMsg("task", new CountedMessage), -2);
    }
    // A message back to the sender, directly or through another task, is refused.
    ScriptedTask other("other");
    other.on_direct = [&](Framework::Message*, std::string&) {
        return other.SendDirectMsg("task", new CountedMessage);
    };
    task.on_direct = [&](Framework::Message*, std::string&) {
        return task.SendDirectMsg("other", new CountedMessage);
    };
    ASSERT_TRUE(Register(other));
    EXPECT_EQ(sender_.SendDirectMsg("task", new CountedMessage), -2);
    EXPECT_TRUE(LogSays("from within its own handler"));
    Unregister(other);
    Unregister(task);
    EXPECT_EQ(CountedMessage::alive, 0);
}

TEST_F(MessagingTest, TargetIsNotToBeHad_SyncSendWaitsAsLongAsAsked) {
    EXPECT_EQ(sender_.SyncSendDirectMsg("task", new CountedMessage, reply_, 5, 1), -3);
    ScriptedTask task("task");
    Signal inside;
    Signal release;
    std::atomic<bool> in_init{true};
    std::atomic<int> early{0};
    task.on_init = [&] {
        EXPECT_EQ(task.SendDirectMsg("task", new CountedMessage), 0) << "to itself";
        WaitFor([&] { return early > 1; }, 100ms);
        in_init = false;
        return true;
    };
    task.on_direct = [&](Framework::Message*, std::string&) {
        if (in_init) return ++early > 1 ? -1 : 0;
        inside.Set();
        return release.Wait() ? 0 : -1;
    };
    task.on_uninit = [&] {  // a task that ends does not wait
        return task.SyncSendDirectMsg("missing", new CountedMessage, reply_, 600'000, 2) == -3;
    };
    // It is registered, and then in its Init, while the sender waits.
    std::thread waiting([&] {
        EXPECT_EQ(sender_.SyncSendDirectMsg("task", new CountedMessage, reply_, 10'000, 1), 0);
    });
    ASSERT_TRUE(Register(task));
    ASSERT_TRUE(inside.Wait());
    ScriptedTask third("third");
    EXPECT_EQ(third.SyncSendDirectMsg("task", new CountedMessage, reply_, 5, 1), -3);  // busy
    release.Set();
    waiting.join();
    Unregister(task);
    EXPECT_EQ(CountedMessage::alive, 0);
}

TEST_F(MessagingTest, UnregisteredUnderFire_NothingIsLostOrTouchedAfter) {
    std::atomic<bool> firing{true};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            ScriptedTask self("self");
            std::string reply;
            while (firing) {
                auto message = std::make_unique<CountedMessage>();
                if (engine_.PostMessage("task", message.get())) message.release();
                self.SendDirectMsg("task", new CountedMessage);
                self.SyncSendDirectMsg("task", new CountedMessage, reply, 1, 1);
            }
        });
    }
    for (int life = 0; life < 100; ++life) {
        auto task = std::make_unique<ScriptedTask>("task");
        long handled = 0;  // without a lock: the handler lock and unregistration must order it
        task->on_message = [&](Framework::Message*) { ++handled; };
        task->on_direct = [&](Framework::Message*, std::string&) { return ++handled > 0 ? 0 : -1; };
        ASSERT_TRUE(Register(*task));
        if (life % 2 == 0) {
            EXPECT_TRUE(RunsOnce(*task));
        }
        Unregister(*task);
        handled = -1;
        ASSERT_EQ(task->referenceCount(), 1);
        delete task.release();
    }
    firing = false;
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(CountedMessage::alive, 0);
}

}  // namespace test
