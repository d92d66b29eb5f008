#pragma once

#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <framework/Message.h>
#include <framework/Module.h>
#include <framework/Policy.h>
#include <framework/Task.h>
#include <gtest/gtest.h>
#include <sdk/files/PathUtils.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace test {

using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;

/// A one-time event for any number of waiting threads.
class Signal {
  public:
    void Set() {
        if (!set_.exchange(true)) promise_.set_value();
    }
    bool IsSet() const { return set_; }
    bool Wait() const { return future_.wait_for(kDeadline) == std::future_status::ready; }

  private:
    std::atomic<bool> set_{false};
    std::promise<void> promise_;
    std::shared_future<void> future_{promise_.get_future().share()};
};

/// A message that counts its existing objects.
class CountedMessage : public Framework::Message {
  public:
    CountedMessage() { ++alive; }
    ~CountedMessage() override { --alive; }
    static inline std::atomic<int> alive{0};
};

/// A task whose operations the test gives; by default it consumes what is queued.
class ScriptedTask : public Framework::Task {
  public:
    explicit ScriptedTask(
        const std::string& id,
        Framework::TaskCondition::TaskType type = Framework::TaskCondition::kResident,
        unsigned int capacity = 64)
        : Task(id, "feature", type, capacity) {}

    bool Init() override { return on_init(); }
    bool UnInit() override { return on_uninit(); }
    int Run() override { return on_run(); }
    int InterceptMsg(Framework::Message* msg, std::string& reply) override {
        return on_direct(msg, reply);
    }
    void HandleMsg(Framework::Message* msg) override { on_message(msg); }

    std::function<bool()> on_init = [] { return true; };
    std::function<bool()> on_uninit = [] { return true; };
    std::function<int()> on_run = [this] {
        if (Waiter().WaitAndHandleEvent(60'000, 10) == -1) BulkConsumeMsg(128);
        return 0;
    };
    std::function<int(Framework::Message*, std::string&)> on_direct =
        [](Framework::Message*, std::string&) { return 0; };
    std::function<void(Framework::Message*)> on_message = [](Framework::Message*) {};
};

/// A module whose policy callback "10001" and tasklet "tasklet" the test gives.
class ScriptedModule : public Framework::Module {
  public:
    explicit ScriptedModule(const std::string& name = "scripted_module") : Module(name) {}

    bool Init() override {
        using Policies = Framework::PolicyCallback<ScriptedModule>;
        using Tasklets = Framework::TaskletCallback<ScriptedModule>;
        RegisterPolicyCallback("10001", new Policies(this, &ScriptedModule::TakePolicy));
        RegisterTaskletCallback("tasklet", new Tasklets(this, &ScriptedModule::Answer));
        return on_init();
    }
    void UnInit() override { on_uninit(); }

    std::function<bool()> on_init = [] { return true; };
    std::function<void()> on_uninit = [] {};
    std::function<int(const std::string&, Framework::Policy*&)> on_policy =
        [](const std::string&, Framework::Policy*&) { return 0; };
    std::function<int(const std::string&)> on_tasklet = [](const std::string&) { return 0; };

  private:
    int TakePolicy(const std::string& feature, const std::string&, Framework::Policy*& policy) {
        return on_policy(feature, policy);
    }
    int Answer(const std::string& request) { return on_tasklet(request); }
};

/// A running engine in its own installation, with one module, a task period of an hour and a short
/// grace period of policies.
class EngineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        SDK::PathUtils::SetInstallationPath(installation_.Path());
        Configure(R"({"task_period_ms": 3600000, "policy_grace_ms": 50})");
        engine_.Start();
        module_ = AddModule("scripted_module");
    }
    void TearDown() override { engine_.Stop(); }

    void Configure(const std::string& json) {
        auto& config = Framework::ConfigManager::GetInstance();
        config.Reset();
        std::string error;
        ASSERT_TRUE(config.Load(installation_.Write("conf/agent.json", json), true, error))
            << error;
    }

    ScriptedModule* AddModule(const std::string& name) {
        auto module = std::make_unique<ScriptedModule>(name);
        ScriptedModule* const added = module.get();
        std::string error;
        EXPECT_TRUE(engine_.AddModule(std::move(module), error)) << error;
        return added;
    }
    bool RunsOnce(const Framework::Task& task) {
        return WaitFor([&] { return StatusOf(task.Id()).passes > 0; }, kDeadline);
    }
    /// Registers the task as modules do; the caller keeps it.
    bool Register(Framework::Task& task, bool deferred = false) {
        bool registered = false;
        engine_.RunOnFrameworkThread([&] {
            task.duplicate();
            registered = module_->RegisterTask(&task, deferred);
        });
        return registered;
    }
    void Unregister(const Framework::Task& task) {
        engine_.RunOnFrameworkThread([&] { module_->UnRegisterTask(task.Id()); });
    }

    Framework::TaskStatus StatusOf(const std::string& id) {
        for (const auto& status : engine_.TaskStatuses()) {
            if (status.id == id) return status;
        }
        return {};
    }

    bool LogSays(const std::string& text) const {
        return WaitFor([&] { return log_.Text().find(text) != std::string::npos; }, kDeadline);
    }

    TempDir installation_;
    Framework::Engine engine_;
    LogCapture log_;  // after the engine, which gives all loggers another channel
    ScriptedModule* module_ = nullptr;
};

}  // namespace test
