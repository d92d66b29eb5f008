#include <framework/Engine.h>
#include <framework/Message.h>
#include <gtest/gtest.h>
#include <sdk/PathUtils.h>

#include <atomic>
#include <future>
#include <map>
#include <thread>

#include "ReportModule.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

/// The module in a running framework, below a fresh installation path.
class ReportModuleTest : public ::testing::Test {
  protected:
    ReportModuleTest() {
        SDK::PathUtils::SetInstallationPath(directory_.Path());
        engine_.Start();
        std::string error;
        EXPECT_TRUE(engine_.AddModule(std::make_unique<Engine::ReportModule>(), error)) << error;
    }
    ~ReportModuleTest() override {
        engine_.Stop();
        SDK::PathUtils::SetInstallationPath("");
    }

    Json::Value Ask(const std::string& name, const Json::Value& request = Json::objectValue) {
        Json::Value answer;
        EXPECT_TRUE(engine_.Queries().Ask(name, request, answer)) << name;
        return answer;
    }

    /// True when it was taken; a refused message is freed here.
    bool Post(const std::string& task, std::unique_ptr<Framework::Message> message) {
        const bool taken = engine_.PostMessage(task, message.get());
        if (taken) (void)message.release();
        return taken;
    }

    int SendDirectly(const std::string& task, std::unique_ptr<Framework::Message> message) {
        return engine_.FindTask(task)->SendDirectMsg(task, message.release());
    }

    test::TempDir directory_;
    test::LogCapture log_;
    Framework::Engine engine_;
};

TEST_F(ReportModuleTest, QueuedAndDirectReports_AreStoredWhenTheCallReturns) {
    ASSERT_TRUE(Post("cmd_comm_report_task",
                     std::make_unique<Framework::CmdMessage>("feature_exception_1", "{\"a\":1}")));
    EXPECT_EQ(Ask("status.report")["reports"]["stored"], 1);
    auto alarm = std::make_unique<Framework::DataMessage>("2", "{\"alarm\":1}");
    alarm->SetNote({"restored", 12.5});
    EXPECT_EQ(SendDirectly("data_comm_report_task", std::move(alarm)), 0);

    const Json::Value answer = Ask("reports.read");
    const Json::Value& reports = answer["reports"];
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0]["kind"], "cmd");
    EXPECT_EQ(reports[0]["name"], "feature_exception_1");
    EXPECT_EQ(reports[0]["body"], "{\"a\":1}");
    EXPECT_EQ(reports[1]["kind"], "data");
    EXPECT_EQ(reports[1]["outcome"], "restored");
    EXPECT_EQ(reports[1]["duration_ms"], 12.5);
    EXPECT_EQ(test::TempDir::Read(directory_.Path("log/alarms.jsonl")), "{\"alarm\":1}\n");
}

TEST_F(ReportModuleTest, MessageThatIsNoReport_IsRefusedAndLogged) {
    EXPECT_FALSE(Post("data_comm_report_task", std::make_unique<Framework::Message>()));
    EXPECT_LT(SendDirectly("cmd_comm_report_task", std::make_unique<Framework::Message>()), 0);
    EXPECT_EQ(Ask("status.report")["reports"]["stored"], 0);
    EXPECT_EQ(log_.Count("Error", "refuses a message that is no report"), 2);
}

TEST_F(ReportModuleTest, ManySenders_NothingIsLostOrMixed) {
    constexpr int kThreads = 4;
    constexpr int kReports = 100;
    std::vector<std::thread> senders;
    std::atomic<int> refused{0};
    for (int sender = 0; sender < kThreads; ++sender) {
        senders.emplace_back([&, sender] {
            for (int i = 0; i < kReports; ++i) {
                const std::string body = "{\"n\":" + std::to_string(sender * kReports + i) + "}";
                const bool stored =
                    sender % 2 == 0
                        ? Post("cmd_comm_report_task",
                               std::make_unique<Framework::CmdMessage>("id", body))
                        : SendDirectly("data_comm_report_task",
                                       std::make_unique<Framework::DataMessage>("2", body)) == 0;
                if (!stored) ++refused;
                if (i % 10 == 0) Ask("status.report");
            }
        });
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(refused, 0);
    Json::Value request;
    request["after"] = 0;
    request["limit"] = 1000;
    const Json::Value answer = Ask("reports.read", request);
    std::map<std::string, int> seen;
    for (const Json::Value& report : answer["reports"]) ++seen[report["body"].asString()];
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kReports));
    const std::string lines = test::TempDir::Read(directory_.Path("log/alarms.jsonl"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), kThreads / 2 * kReports);
}

TEST_F(ReportModuleTest, Stopped_LongPollEndsAndReportsAreKept) {
    ASSERT_TRUE(
        Post("cmd_comm_report_task", std::make_unique<Framework::CmdMessage>("id", "body")));
    Json::Value request;
    request["after"] = 1;
    request["wait_ms"] = 60000;
    Json::Value answer;
    auto poll = std::async(std::launch::async,
                           [&] { return engine_.Queries().Ask("reports.read", request, answer); });
    auto stop = std::async(std::launch::async, [&] { engine_.Stop(); });
    EXPECT_EQ(stop.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(poll.wait_for(20s), std::future_status::ready);
    Engine::ReportStore store(directory_.Path("data/reports.db"), {}, [] { return 0; });
    Engine::ReportPage page;
    ASSERT_TRUE(store.Read({}, 0ms, page));
    ASSERT_EQ(page.reports.size(), 1U);
    EXPECT_EQ(page.reports[0].body, "body");
}

TEST(ReportTask, StoreFails_SenderIsToldAndTheAlarmFileStillWritten) {
    const test::LogCapture log;
    const test::TempDir directory;
    directory.Write("data", "a file in the way");
    Engine::ReportStore store(directory.Path("data/reports.db"), {}, [] { return 0; });
    Engine::AlarmLog alarms(directory.Path("log/alarms.jsonl"), 1000, 1);
    Poco::AutoPtr<Engine::ReportTask> task(new Engine::ReportTask("task", store, alarms));
    Framework::DataMessage alarm("2", "{}");
    std::string reply;
    EXPECT_FALSE(task->EnqueueMsg(&alarm));
    EXPECT_LT(task->InterceptMsg(&alarm, reply), 0);
    EXPECT_EQ(test::TempDir::Read(directory.Path("log/alarms.jsonl")), "{}\n{}\n");
}

}  // namespace
