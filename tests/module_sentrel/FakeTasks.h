#pragma once

#include <framework/Engine.h>
#include <framework/Message.h>
#include <framework/Module.h>
#include <framework/Task.h>
#include <gtest/gtest.h>
#include <module_filenotify/FileNotifyWatchMessage.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ModuleLog.h"

namespace test {

/// A report as a report task received it.
struct SeenReport {
    std::string name;
    std::string body;
    Framework::ReportNote note;
};

/// Stands in for a report task: keeps what it is sent, directly or through its queue.
class RecordingTask : public Framework::Task {
  public:
    explicit RecordingTask(const std::string& id)
        : Task(id, "test", Framework::TaskCondition::kResident, 128) {}

    int Run() override {
        Waiter().WaitAndHandleEvent(1000, 10);
        BulkConsumeMsg(128);
        return 0;
    }
    void HandleMsg(Framework::Message* msg) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (auto* data = dynamic_cast<Framework::DataMessage*>(msg)) {
            seen_.push_back({data->GetEvent(), data->GetBody(), data->GetNote()});
        } else if (auto* cmd = dynamic_cast<Framework::CmdMessage*>(msg)) {
            seen_.push_back({cmd->GetMsgId(), cmd->GetBody(), {}});
        }
    }
    std::vector<SeenReport> Seen() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<SeenReport> seen_;
};

/// Stands in for the file-notify task: keeps the watch requests and answers with the path.
class RecordingNotifyTask : public RecordingTask {
  public:
    RecordingNotifyTask() : RecordingTask("filenotify_task") {}

    int InterceptMsg(Framework::Message* msg, std::string& reply) override {
        auto* watch = dynamic_cast<Engine::FileNotifyWatchMessage*>(msg);
        if (watch == nullptr) return -1;
        const std::lock_guard<std::mutex> lock(mutex_);
        const _FileNotifyOpt& options = watch->GetOptions();
        requests_.push_back(std::string(options.remove ? "-" : "+") + watch->GetPath());
        mask_ = watch->GetMask();
        options_ = options;
        reply = watch->GetPath();
        if (reply.size() > 1 && reply.back() == '/') reply.pop_back();
        return 0;
    }
    std::vector<std::string> Requests() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }
    unsigned int Mask() const { return mask_; }
    const _FileNotifyOpt& Options() const { return options_; }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    unsigned int mask_ = 0;
    _FileNotifyOpt options_;
};

/// The module that the stand-in tasks belong to.
class FakeModule : public Framework::Module {
  public:
    FakeModule() : Module("fake_module") {}

    bool Init() override {
        for (Framework::Task* task : Tasks()) {
            task->duplicate();
            RegisterTask(task, false);
        }
        return Module::Init();
    }
    void UnInit() override {
        for (Framework::Task* task : Tasks()) UnRegisterTask(task->Id());
        Module::UnInit();
    }

    RecordingTask data{"data_comm_report_task"};
    RecordingTask cmd{"cmd_comm_report_task"};
    RecordingNotifyTask notify;

  private:
    std::vector<Framework::Task*> Tasks() { return {&data, &cmd, &notify}; }
};

/// A running engine with the stand-in tasks.
class RunningEngine {
  public:
    explicit RunningEngine(ModuleLog& log) {
        log.Attach();
        engine.Start();
        auto module = std::make_unique<FakeModule>();
        fakes = module.get();
        std::string error;
        EXPECT_TRUE(engine.AddModule(std::move(module), error)) << error;
    }
    ~RunningEngine() { engine.Stop(); }

    Framework::Engine engine;
    FakeModule* fakes = nullptr;
};

}  // namespace test
