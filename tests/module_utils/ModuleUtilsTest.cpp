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

/// Both report tasks in a framework that runs.
class ModuleUtilsTest : public ::testing::Test {
  protected:
    ModuleUtilsTest() {
        engine_.Start();
        engine_.RunOnFrameworkThread([this] {
            for (RecordingTask* task : {cmd_task_.get(), data_task_.get()}) {
                task->duplicate();
                module_.RegisterTask(task, false);
            }
        });
    }
    ~ModuleUtilsTest() override {
        engine_.RunOnFrameworkThread([this] {
            module_.UnRegisterTask(cmd_task_->Id());
            module_.UnRegisterTask(data_task_->Id());
        });
        engine_.Stop();
    }

    const test::LogCapture log_;
    Framework::Engine engine_;
    Framework::Module module_{"test_module"};
    Poco::AutoPtr<RecordingTask> cmd_task_{new RecordingTask("cmd_comm_report_task")};
    Poco::AutoPtr<RecordingTask> data_task_{new RecordingTask("data_comm_report_task")};
};

TEST_F(ModuleUtilsTest, Reports_ReachTheirTask) {
    ASSERT_TRUE(Engine::SendUnrepairableException("a \"name\"", "gone"));
    const auto* cmd = dynamic_cast<Framework::CmdMessage*>(cmd_task_->taken.get());
    ASSERT_NE(cmd, nullptr);
    EXPECT_EQ(cmd->GetMsgId(), "feature_exception_1");
    EXPECT_EQ(cmd->GetBody(), "{\"name\":\"a \"name\"\", \"exception\":\"gone\"}");
    ASSERT_TRUE(Engine::SendAlarmMessage("7", "{}"));
    const auto* alarm = dynamic_cast<Framework::DataMessage*>(data_task_->taken.get());
    ASSERT_NE(alarm, nullptr);
    EXPECT_EQ(alarm->GetEvent(), "2");
    EXPECT_EQ(log_.Count("Information", "send alarm message to queue success. event=7, msgLen=2"),
              1);
}

TEST_F(ModuleUtilsTest, RefusedReports_AreLoggedAsFailed) {
    cmd_task_->refuses = true;
    data_task_->refuses = true;
#if defined(__SANITIZE_ADDRESS__)
    const __lsan::ScopedDisabler refused_messages_are_not_freed;
#endif
    EXPECT_FALSE(Engine::SendCmdMessage("id", "body"));
    EXPECT_FALSE(Engine::SendDataMessage("event", "body"));
    EXPECT_FALSE(Engine::SendAlarmMessage("event", "body"));
    for (const char* text : {"send cmd message to queue failed. msgId=id, msgLen=4",
                             "send data message to queue failed. event=event, msgLen=4",
                             "send alarm message to queue failed. event=event, msgLen=4"}) {
        EXPECT_EQ(log_.Count("Error", text), 1) << text;
    }
}

}  // namespace
