#include <framework/RunSoon.h>
#include <sdk/commands/ExecuteCmdUtils.h>

#include <algorithm>
#include <functional>
#include <future>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <vector>

#include "EngineFixture.h"

namespace test {

using Framework::TaskCondition;

class TaskTest : public EngineTest {};

TEST_F(TaskTest, RegisteredTwice_LivesTwiceAloneUnderItsIdAndIsGivenBack) {
    ScriptedTask task("task");
    int inits = 0;
    int uninits = 0;
    Poco::Task::TaskState last_state = Poco::Task::TASK_IDLE;
    task.on_init = [&] { return ++inits > 0; };
    task.on_uninit = [&] {
        last_state = task.state();
        return ++uninits > 0;
    };
    for (int life = 1; life <= 2; ++life) {
        EXPECT_EQ(engine_.FindTask("task"), nullptr);
        ASSERT_TRUE(Register(task));
        ScriptedTask rival("task");
        EXPECT_FALSE(Register(rival));
        EXPECT_EQ(rival.referenceCount(), 1);
        EXPECT_EQ(engine_.FindTask("task"), &task);
        EXPECT_EQ(task.referenceCount(), 2);
        // The first message ends the first wait, and with it the first pass.
        ASSERT_TRUE(engine_.PostMessage("task", new CountedMessage));
        EXPECT_TRUE(RunsOnce(task));
        EXPECT_FALSE(task.isCancelled());
        Unregister(task);
        EXPECT_EQ(inits, life);
        EXPECT_EQ(uninits, life);
        EXPECT_EQ(last_state, Poco::Task::TASK_CANCELLING);
        EXPECT_EQ(task.referenceCount(), 1);
        EXPECT_EQ(CountedMessage::alive, 0);
    }
    Unregister(task);  // unknown by now
    EXPECT_EQ(uninits, 2);
}

TEST_F(TaskTest, WantedSoon_PassesWithoutWaitingForItsPeriod) {
    Configure(R"({"task_period_ms": 600000})");
    ScriptedTask task("task", TaskCondition::kPeriodic);
    std::atomic<int> passes{0};
    task.on_run = [&] { return ++passes; };
    Framework::RunSoon(task);  // not registered: nothing happens
    ASSERT_TRUE(Register(task));
    for (int pass = 1; pass <= 3; ++pass) {
        ASSERT_TRUE(WaitFor([&] { return passes == pass; }, kDeadline)) << pass;
        Framework::RunSoon(task);
    }
    Unregister(task);
}

TEST_F(TaskTest, UnregisteredBeforeInit_NeverRunsAndFreesItsQueue) {
    ScriptedTask task("task");
    std::atomic<int> calls{0};
    task.on_init = [&] { return ++calls > 0; };
    task.on_uninit = [&] { return ++calls > 0; };
    // The callback holds the gate, so Init cannot begin.
    module_->on_policy = [&](const std::string&, Framework::Policy*& policy) {
        policy->SetHandled(true);
        EXPECT_TRUE(Register(task));
        EXPECT_TRUE(engine_.PostMessage("task", new CountedMessage));
        Unregister(task);
        return 1;
    };
    EXPECT_EQ(engine_.ApplyPolicy("feature", "{}").result, 1);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(CountedMessage::alive, 0);
    EXPECT_EQ(task.referenceCount(), 1);
}

TEST_F(TaskTest, EverythingThrows_IsLoggedAndEndsInOrder) {
    ScriptedTask task("task");
    task.on_init = []() -> bool { throw std::runtime_error("first"); };
    task.on_run = []() -> int { throw std::runtime_error("second"); };
    task.on_uninit = []() -> bool { throw std::runtime_error("third"); };
    ASSERT_TRUE(Register(task));
    EXPECT_TRUE(RunsOnce(task));
    EXPECT_TRUE(StatusOf("task").init_failed);
    Unregister(task);
    EXPECT_TRUE(LogSays("Task(task) failed to initialise: first"));
    EXPECT_TRUE(LogSays("Task(task) failed in a pass: second"));
    EXPECT_TRUE(LogSays("Task(task) failed to uninitialise: third"));
}

TEST_F(TaskTest, Periodic_FirstPassAtOnceAndEndsInItsPause) {
    ScriptedTask task("task", TaskCondition::kPeriodic);
    task.on_run = [] { return 0; };
    ASSERT_TRUE(Register(task));
    EXPECT_TRUE(RunsOnce(task));
    Unregister(task);  // the period is an hour

    Configure(R"({"task_period_ms": 10})");
    ASSERT_TRUE(Register(task));
    EXPECT_TRUE(WaitFor([&] { return StatusOf("task").passes >= 5; }, kDeadline));
    Unregister(task);
}

TEST_F(TaskTest, Deferred_StartsWhenAllModulesHave) {
    ScriptedTask task("task");
    ScriptedTask dropped("dropped");
    ASSERT_TRUE(Register(task, true));
    ASSERT_TRUE(Register(dropped, true));
    EXPECT_TRUE(engine_.PostMessage("task", new CountedMessage));
    EXPECT_EQ(StatusOf("task").state, "starting");
    Unregister(dropped);
    engine_.StartDeferredTasks();
    EXPECT_TRUE(WaitFor([] { return CountedMessage::alive == 0; }, kDeadline));
    EXPECT_EQ(StatusOf("dropped").id, "");
    Unregister(task);
}

TEST_F(TaskTest, PassOutlastsItsLimit_IsReportedStalledOnce) {
    ScriptedTask task("task", TaskCondition::kPeriodic);
    Signal release;
    task.on_run = [&] { return release.Wait() ? 0 : 1; };
    task.SetTaskCondition({TaskCondition::kStallLimit, 0});
    task.SetConditionInForce(true);
    ASSERT_TRUE(Register(task));
    EXPECT_TRUE(WaitFor([&] { return StatusOf("task").state == "stalled"; }, kDeadline));
    EXPECT_TRUE(LogSays("Task(task) has stalled"));
    release.Set();
    EXPECT_TRUE(WaitFor([&] { return StatusOf("task").state == "running"; }, kDeadline));
    Unregister(task);
    const std::string log = log_.Text();
    EXPECT_EQ(log.find("has stalled"), log.rfind("has stalled"));
}

struct PassCase {
    const char* name;
    std::function<void(ScriptedTask&, const Signal&)> pass;  ///< until the signal
    bool is_stuck;
};

std::ostream& operator<<(std::ostream& out, const PassCase& each) {
    return out << each.name;
}

class StuckThread : public TaskTest, public testing::WithParamInterface<PassCase> {
  protected:
    static constexpr auto kLimit = 300ms;

    /// The thread that is found stuck within three times the limit.
    std::string FindStuck() {
        std::string stuck;
        const auto found = [&] { return !(stuck = engine_.FindStuckThread(kLimit)).empty(); };
        WaitFor(found, 3 * kLimit);
        return stuck;
    }
};

TEST_P(StuckThread, PassThatDoesNotEnd_IsFoundUnlessItWorksOrWaits) {
    ScriptedTask task("task");
    Signal begun;
    Signal release;
    task.on_run = [&] {
        begun.Set();
        GetParam().pass(task, release);
        return 0;
    };
    ASSERT_TRUE(Register(task));
    ASSERT_TRUE(WaitFor([&] { return begun.IsSet(); }, kDeadline));
    EXPECT_EQ(FindStuck(), GetParam().is_stuck ? "task task" : "");
    release.Set();
    EXPECT_TRUE(WaitFor([&] { return engine_.FindStuckThread(kLimit).empty(); }, kDeadline));
    Unregister(task);
}

INSTANTIATE_TEST_SUITE_P(
    Passes, StuckThread,
    testing::Values(PassCase{"Blocked",
                             [](ScriptedTask&, const Signal& release) { release.Wait(); }, true},
                    PassCase{"Working",
                             [](ScriptedTask&, const Signal& release) {
                                 while (!release.IsSet()) {
                                 }
                             },
                             false},
                    PassCase{"Waiting",
                             [](ScriptedTask& task, const Signal&) {
                                 task.Waiter().WaitAndHandleEvent(60'000, 10);
                             },
                             false},
                    PassCase{"InACommand",
                             [](ScriptedTask&, const Signal&) {
                                 std::string output;
                                 SDK::ExecuteCmdUtils::ExecuteCmd("sleep 2", output, 100);
                             },
                             false}),
    [](const auto& each) { return each.param.name; });

TEST_F(StuckThread, BlockedFrameworkThread_IsFoundUntilItGoesOn) {
    Signal release;
    auto job = std::async(std::launch::async,
                          [&] { engine_.RunOnFrameworkThread([&] { release.Wait(); }); });
    EXPECT_EQ(FindStuck(), "the framework thread");
    release.Set();
    job.get();
    EXPECT_EQ(engine_.FindStuckThread(kLimit), "");
}

TEST_F(TaskTest, UnregisteredInsideACommand_InterruptsItButNotUnInits) {
    ScriptedTask task("task");
    Signal running;
    int run_result = 0;
    int uninit_result = -1;
    std::string output;
    task.on_run = [&] {
        running.Set();
        std::string ignored;
        run_result = SDK::ExecuteCmdUtils::ExecuteCmd("sleep 60", ignored, 100);
        return 0;
    };
    task.on_uninit = [&] {
        uninit_result = SDK::ExecuteCmdUtils::ExecuteCmd("echo stopped", output, 100);
        return true;
    };
    ASSERT_TRUE(Register(task));
    ASSERT_TRUE(running.Wait());
    Unregister(task);
    EXPECT_EQ(run_result, SDK::ExecuteCmdUtils::kInterrupted);
    EXPECT_EQ(uninit_result, 0);
    EXPECT_EQ(output, "stopped\n");
}

TEST_F(TaskTest, EngineStops_ModulesInReverseThenTasksLeftBehind) {
    std::vector<std::string> order;
    ScriptedModule* const second = AddModule("second");
    auto* const task = new ScriptedTask("left_behind");  // its only reference is the framework's
    task->on_uninit = [&] {
        order.push_back("task");
        return true;
    };
    module_->on_uninit = [&] {
        EXPECT_FALSE(engine_.InvokeTasklet("tasklet", "").found);
        order.push_back("first");
    };
    second->on_uninit = [&] { order.push_back("second"); };
    EXPECT_EQ(engine_.ModuleNames(), (std::vector<std::string>{"scripted_module", "second"}));
    engine_.RunOnFrameworkThread([&] { EXPECT_TRUE(module_->RegisterTask(task, false)); });
    EXPECT_TRUE(WaitFor([&] { return StatusOf("left_behind").state == "running"; }, kDeadline));
    engine_.Stop();
    engine_.Stop();
    EXPECT_EQ(order, (std::vector<std::string>{"second", "first", "task"}));
    EXPECT_THROW(engine_.RunOnFrameworkThread([] {}), Poco::Exception);
}

}  // namespace test
