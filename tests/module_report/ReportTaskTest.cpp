#include <framework/Message.h>

#include <algorithm>
#include <set>
#include <thread>

#include "ReportTask.h"
#include "StoreFixture.h"
#include "alarm_log/AlarmLog.h"

namespace {

class ReportTaskTest : public test::StoreTest {
  protected:
    const std::string alarm_file_ = directory_.Path("log/alarms.jsonl");
    Engine::AlarmLog alarms_{alarm_file_, 1000000, 1};
    Poco::AutoPtr<Engine::ReportTask> task_{new Engine::ReportTask("task", *store_, alarms_)};
};

TEST_F(ReportTaskTest, ManySenders_NothingIsLostOrMixed) {
    constexpr int kThreads = 4;
    constexpr int kReports = 100;
    std::vector<std::thread> senders;
    for (int sender = 0; sender < kThreads; ++sender) {
        senders.emplace_back([&, sender] {
            for (int i = 0; i < kReports; ++i) {
                const std::string body = "{\"n\":" + std::to_string(sender * kReports + i) + "}";
                if (sender % 2 == 0) {
                    EXPECT_TRUE(task_->EnqueueMsg(new Framework::CmdMessage("id", body)));
                } else {
                    Framework::DataMessage alarm("2", body);
                    alarm.SetNote({"restored", 12.5, i % 2 == 0});
                    std::string reply;
                    EXPECT_EQ(task_->InterceptMsg(&alarm, reply), 0);
                }
                if (i % 10 == 0) task_->Run();
            }
        });
    }
    for (std::thread& sender : senders) sender.join();
    std::set<std::string> seen;
    for (const Engine::Report& report : ReadAll()) {
        seen.insert(report.body);
        EXPECT_EQ(report.outcome, report.kind == Engine::kDataKind ? "restored" : "");
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kReports));
    const std::string lines = test::TempDir::Read(alarm_file_);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kThreads / 2 * kReports);
}

TEST_F(ReportTaskTest, NoteOfAnAlarm_IsKeptBesideItsBody) {
    Framework::DataMessage alarm("2", "{}");
    alarm.SetNote({"restored", 12.5, true, "id", R"({"pid":7})"});
    std::string reply;
    ASSERT_EQ(task_->InterceptMsg(&alarm, reply), 0);
    const Engine::Report report = ReadAll().at(0);
    EXPECT_EQ(report.body + report.evidence + report.who, R"({}id{"pid":7})");
}

TEST_F(ReportTaskTest, StoreFails_SenderIsToldAndTheAlarmFileStillWritten) {
    directory_.Write("data", "a file in the way");
    Framework::DataMessage alarm("2", "{}");
    std::string reply;
    EXPECT_FALSE(task_->EnqueueMsg(&alarm));
    EXPECT_LT(task_->InterceptMsg(&alarm, reply), 0);
    EXPECT_EQ(test::TempDir::Read(alarm_file_), "{}\n{}\n");
}

}  // namespace
