#include <Poco/AutoPtr.h>
#include <framework/Engine.h>
#include <framework/Message.h>
#include <framework/Module.h>
#include <framework/Task.h>
#include <gtest/gtest.h>
#include <module_utils/ModuleUtils.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "support/LogCapture.h"

namespace {

/// A report task that keeps what it is sent, or refuses it.
class RecordingTask : public Framework::Task {
  public:
    explicit RecordingTask(const std::string& id)
        : Framework::Task(id, "test", Framework::TaskCondition::kPeriodic, 1) {}

    bool EnqueueMsg(Framework::Message* msg) override {
        if (refuses) return false;
        taken.reset(msg);
        return true;
    }

    bool refuses = false;
    std::unique_ptr<Framework::Message> taken;
};

TEST(ModuleUtils, Reports_ReachTheirTaskOrAreLoggedAsRefused) {
    const test::LogCapture log;
    Framework::Engine engine;
    Framework::Module module("test_module");
    Poco::AutoPtr<RecordingTask> cmd_task(new RecordingTask("cmd_comm_report_task"));
    Poco::AutoPtr<RecordingTask> data_task(new RecordingTask("data_comm_report_task"));
    engine.Start();
    engine.RunOnFrameworkThread([&] {
        for (RecordingTask* task : {cmd_task.get(), data_task.get()}) {
            task->duplicate();
            module.RegisterTask(task, false);
        }
    });
    ASSERT_TRUE(Engine::SendUnrepairableException("a \"name\"", "gone"));
    const auto* cmd = dynamic_cast<Framework::CmdMessage*>(cmd_task->taken.get());
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->GetMsgId(), "feature_exception_1");
    EXPECT_EQ(cmd->GetBody(), "{\"name\":\"a \"name\"\", \"exception\":\"gone\"}");
    ASSERT_TRUE(Engine::SendAlarmMessage("7", "{}"));
    const auto* alarm = dynamic_cast<Framework::DataMessage*>(data_task->taken.get());
    ASSERT_NE(alarm, nullptr);
    EXPECT_EQ(alarm->GetEvent(), "2");

    cmd_task->refuses = data_task->refuses = true;
#if defined(__SANITIZE_ADDRESS__)
    const __lsan::ScopedDisabler refused_messages_are_not_freed;
#endif
    EXPECT_FALSE(Engine::SendCmdMessage("id", "body"));
    EXPECT_FALSE(Engine::SendDataMessage("event", "body"));
    EXPECT_FALSE(Engine::SendAlarmMessage("event", "body"));
    EXPECT_EQ(log.Count("Information", "send alarm message to queue success. event=7, msgLen=2"),
              1);
    for (const char* text : {"cmd message to queue failed. msgId=id, msgLen=4",
                             "data message to queue failed. event=event, msgLen=4",
                             "alarm message to queue failed. event=event, msgLen=4"}) {
        EXPECT_EQ(log.Count("Error", std::string("send ") + text), 1) << text;
    }
    engine.RunOnFrameworkThread([&] {
        for (const auto* task : {cmd_task.get(), data_task.get()})
            module.UnRegisterTask(task->Id());
    });
}

}  // namespace
