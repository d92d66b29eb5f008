#include <framework/ModuleGate.h>
#include <framework/OutsideGate.h>
#include <sdk/commands/ExecuteCmdUtils.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "EngineFixture.h"

namespace test {

using Framework::Policy;

/// A policy callback and the passes of its module's tasks exclude each other.
class GateTest : public EngineTest {
  protected:
    int Apply() { return engine_.ApplyPolicy("feature", "{}").result; }
    static int Execute(const std::string& command) {
        std::string output;
        return SDK::ExecuteCmdUtils::ExecuteCmd(command, output, 100);
    }
};

TEST_F(GateTest, ManyTasksAndPoliciesThatWaitOutside_SettingsNeedNoLock) {
    const Framework::OutsideGate without_a_gate;  // nothing happens
    // Plain integers: ThreadSanitizer sees a pass that overlaps a callback.
    int first = 0;
    int second = 0;
    std::atomic<int> torn{0};
    std::atomic<int> passes{0};
    std::vector<std::unique_ptr<ScriptedTask>> tasks;
    for (int i = 0; i < 4; ++i) {
        tasks.push_back(std::make_unique<ScriptedTask>("task" + std::to_string(i)));
        ScriptedTask* const task = tasks.back().get();
        const auto look = [&, task, i] {
            if (first != second) ++torn;
            ++passes;
            if (i % 2 == 0) task->Waiter().WaitAndHandleEvent(60'000, 1);
            return 0;
        };
        task->on_run = look;
        task->on_init = [look] { return look() == 0; };
    }
    module_->on_policy = [&](const std::string&, Policy*& policy) {
        policy->SetHandled(true);
        if (first % 4 == 1) {  // the tasks are registered, and work meanwhile
            const Framework::OutsideGate outside;
            const Framework::OutsideGate nested;
            const int seen = passes;
            EXPECT_TRUE(WaitFor([&] { return passes > seen + 3; }, kDeadline));
            Unregister(*tasks.back());
        }
        ++first;
        // As modules do: the tasks start again with the new settings.
        for (auto& task : tasks) {
            Unregister(*task);
            if (first % 4 == 3) continue;
            EXPECT_TRUE(Register(*task));
        }
        ++second;
        return first;
    };
    for (int i = 1; i <= 40; ++i) EXPECT_EQ(Apply(), i);
    EXPECT_EQ(torn, 0);
    for (auto& task : tasks) Unregister(*task);
}

TEST_F(GateTest, TaskIsInsideALongCommand_PolicyInterruptsItAfterTheGrace) {
    ScriptedTask task("task");
    Signal running;
    Signal again;
    int interrupted = 0;
    int after = -1;
    task.on_run = [&] {
        if (again.IsSet()) return task.Waiter().WaitAndHandleEvent(60'000, 10);
        if (running.IsSet()) {
            after = Execute("true");
            again.Set();
            return 0;
        }
        running.Set();
        interrupted = Execute("sleep 60");
        return 0;
    };
    ASSERT_TRUE(Register(task));
    ASSERT_TRUE(running.Wait());
    module_->on_policy = [&](const std::string&, Policy*& policy) {
        policy->SetHandled(true);
        EXPECT_EQ(after, -1);  // no new pass before the policy
        return 1;
    };
    EXPECT_EQ(Apply(), 1);
    EXPECT_EQ(interrupted, SDK::ExecuteCmdUtils::kInterrupted);
    EXPECT_TRUE(again.Wait());
    Unregister(task);
    EXPECT_EQ(after, 0);
    EXPECT_TRUE(LogSays("a policy waits"));
}

TEST_F(GateTest, TaskHandlesManyMessages_PolicyGoesBetweenThem) {
    Configure(R"({"policy_grace_ms": 60000})");
    ScriptedTask task("task");
    Signal first;
    std::atomic<int> handled{0};
    task.on_message = [&](Framework::Message*) {
        if (++handled == 2) throw std::runtime_error("a bad message");
        if (handled > 1) return;
        first.Set();
        EXPECT_TRUE(WaitFor([&] { return module_->Gate().HasExclusiveWaiter(); }, kDeadline));
    };
    ASSERT_TRUE(Register(task));
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(engine_.PostMessage("task", new CountedMessage));
    ASSERT_TRUE(first.Wait());
    module_->on_policy = [&](const std::string&, Policy*&) {
        EXPECT_EQ(handled, 1);
        return 1;
    };
    Apply();
    EXPECT_TRUE(WaitFor([&] { return handled == 10; }, kDeadline));
    Unregister(task);
    EXPECT_TRUE(LogSays("failed on a message: a bad message"));
}

TEST_F(GateTest, BeginOfTheStop_EndsCommandsOfPoliciesAndOfTasksTheyWaitFor) {
    Configure(R"({"policy_grace_ms": 60000})");
    ScriptedTask task("task");
    Signal in_task;
    Signal in_policy;
    int of_task = 0;
    int of_policy = 0;
    task.on_run = [&] {
        if (in_task.IsSet()) return task.Waiter().WaitAndHandleEvent(60'000, 10);
        in_task.Set();
        of_task = Execute("sleep 600");
        return 0;
    };
    ASSERT_TRUE(Register(task));
    ASSERT_TRUE(in_task.Wait());
    module_->on_policy = [&](const std::string&, Policy*&) {
        in_policy.Set();
        return of_policy = Execute("sleep 600");
    };
    auto applied = std::async(std::launch::async, [&] { return Apply(); });
    EXPECT_TRUE(WaitFor([&] { return module_->Gate().HasExclusiveWaiter(); }, kDeadline));
    EXPECT_FALSE(in_policy.IsSet());
    const auto begun = std::chrono::steady_clock::now();
    engine_.BeginStop();
    applied.wait();
    Unregister(task);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s);
    EXPECT_EQ(of_task, SDK::ExecuteCmdUtils::kInterrupted);
    EXPECT_EQ(of_policy, SDK::ExecuteCmdUtils::kInterrupted);
}

TEST_F(GateTest, TaskOfAnotherModule_IsNotDisturbed) {
    ScriptedModule* const other_module = AddModule("other");
    ScriptedTask task("task");
    Signal running;
    Signal release;
    task.on_run = [&] {
        running.Set();
        return release.Wait() ? 0 : 1;
    };
    ASSERT_TRUE(Register(task));
    ASSERT_TRUE(running.Wait());
    other_module->on_policy = [](const std::string&, Policy*& policy) {
        policy->SetHandled(true);
        return 7;
    };
    engine_.RunOnFrameworkThread([&] { module_->UnRegisterPolicyCallback("10001"); });
    EXPECT_EQ(Apply(), 7);
    release.Set();
    Unregister(task);
}

}  // namespace test
