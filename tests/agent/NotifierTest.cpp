#include <gtest/gtest.h>
#include <notify/Notifier.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>

#include "support/AlarmReports.h"
#include "support/HttpReceiver.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;

class NotifierTest : public testing::Test {
  protected:
    NotifierTest() {
        queries_.Register("reports.read", [this](const Json::Value& request) {
            const std::lock_guard<std::mutex> lock(mutex_);
            Json::Value answer(Json::objectValue);
            answer["reports"] = Json::Value(Json::arrayValue);
            answer["last_seq"] = static_cast<Json::Int64>(reports_.size());
            for (auto at = request.get("after", 1 << 30).asUInt(); at < reports_.size(); ++at) {
                answer["reports"].append(reports_[at]);
            }
            return answer;
        });
    }
    ~NotifierTest() override {
        notifier_.reset();
        queries_.Unregister("reports.read");
    }

    void Start(const Notify::Settings& settings) {
        notifier_ = std::make_unique<Agent::Notifier>(
            queries_, settings, std::vector<Notify::SettingsFault>(),
            Notify::Origin{"www1", "0f0e", "1"}, dir_.Path("marks"), hook_,
            [this] {
                Json::Value status;
                status["health"]["state"] = health_.load();
                if (health_.load() == std::string("off")) ++asked_;
                return status;
            },
            Notify::ChannelWorker::Times{1, 1, 5, 0});
        if (::access(hook_.c_str(), F_OK) != 0) return;
        ASSERT_TRUE(test::WaitFor(
            [&] { return !test::TempDir::Read(dir_.Path("marks/hook.json")).empty(); }, 10s));
    }
    void Raise(const std::string& path, const std::string& outcome) {
        const std::lock_guard<std::mutex> lock(mutex_);
        reports_.push_back(test::AlarmReport(static_cast<long long>(reports_.size()) + 1, 1000,
                                             "modify", path, outcome));
    }
    Json::Value Channel(const std::string& name) {
        Json::Value status;
        queries_.Ask("status.notify", Json::Value(Json::objectValue), status);
        for (const Json::Value& channel : status["notifications"]) {
            if (channel["channel"] == name) return channel;
        }
        return {};
    }
    Json::Value Test(const std::string& channel) {
        Json::Value request;
        request["action"] = "test";
        request["channel"] = channel;
        Json::Value answer;
        queries_.Ask("notify", request, answer);
        return answer;
    }
    void WriteHook(const std::string& text, mode_t mode = 0755) {
        dir_.Write("hooks/after-restore", "#!/bin/sh\n" + text);
        ::chmod(hook_.c_str(), mode);
    }

    test::TempDir dir_;
    Framework::QueryRegistry queries_;
    const std::string hook_ = dir_.Path("hooks/after-restore");
    std::atomic<const char*> health_{"healthy"};
    std::atomic<int> asked_{0};  ///< while the protection was off
    std::mutex mutex_;
    std::vector<Json::Value> reports_;
    std::unique_ptr<Agent::Notifier> notifier_;
};

TEST_F(NotifierTest, Hook_GetsTheUndonePathsOfABurstOnce) {
    WriteHook("cat >> " + dir_.Path("paths") + "; echo >> " + dir_.Path("runs") + "; echo done");
    Start({});
    Raise("/srv/b", "restored");
    Raise("/srv/a\n; touch x", "removed; difference left out");
    Raise("/srv/held", "held");
    Raise("/srv/failed", "restore failed");
    Raise("/srv/b", "restored");
    ASSERT_TRUE(test::WaitFor([&] { return Channel("hook")["deliveries"] == 1; }, 20s));
    EXPECT_EQ(test::TempDir::Read(dir_.Path("paths")),
              std::string("/srv/a\n; touch x\0/srv/b\0", 24));
    EXPECT_EQ(test::TempDir::Read(dir_.Path("runs")), "\n");
}

TEST_F(NotifierTest, HookThatIsPutThereLater_HearsOfWhatComesThen) {
    Start({});
    Raise("/srv/before", "restored");
    WriteHook("cat >> " + dir_.Path("paths"));
    ASSERT_TRUE(test::WaitFor(
        [&] { return !test::TempDir::Read(dir_.Path("marks/hook.json")).empty(); }, 10s));
    Raise("/srv/after", "restored");
    ASSERT_TRUE(test::WaitFor([&] { return Channel("hook")["deliveries"] == 1; }, 20s));
    EXPECT_EQ(test::TempDir::Read(dir_.Path("paths")), std::string("/srv/after\0", 11));
}

TEST_F(NotifierTest, HookThatOthersMayChange_IsNotRun) {
    WriteHook("touch " + dir_.Path("ran"), 0777);
    Start({});
    Raise("/srv/b", "restored");
    ASSERT_TRUE(test::WaitFor([&] { return Channel("hook")["failures"] == 1; }, 20s));
    EXPECT_NE(Channel("hook")["last_error"].asString().find("every user may write"),
              std::string::npos);
    EXPECT_EQ(::access(dir_.Path("ran").c_str(), F_OK), -1);
}

TEST_F(NotifierTest, Heartbeat_IsSilentWhenTheProtectionIsOff) {
    test::HttpReceiver receiver;
    Notify::Settings settings;
    settings.heartbeat = {receiver.Url("/beat"), "", 1};
    Start(settings);
    ASSERT_TRUE(test::WaitFor([&] { return receiver.Requests().size() >= 2; }, 20s));
    EXPECT_EQ(receiver.Requests()[0].method, "GET");
    notifier_.reset();
    const std::size_t before = receiver.Requests().size();
    health_ = "off";
    Start(settings);
    ASSERT_TRUE(test::WaitFor([&] { return asked_ >= 2; }, 20s));
    EXPECT_EQ(receiver.Requests().size(), before);
}

TEST_F(NotifierTest, Test_SaysWhatEachReceiverAnswered) {
    test::HttpReceiver receiver;
    Notify::Settings settings;
    settings.webhook = {receiver.Url("/hook"), "", ""};
    settings.ocsf = dir_.Path("none/ocsf");
    Start(settings);
    const Json::Value all = Test("")["results"];
    ASSERT_EQ(all.size(), 2U) << all.toStyledString();
    EXPECT_TRUE(all[0]["sent"].asBool());
    EXPECT_FALSE(all[1]["sent"].asBool());
    EXPECT_NE(all[1]["error"].asString().find("No such file"), std::string::npos);
    receiver.Answer(500);
    EXPECT_NE(Test("webhook")["results"][0]["error"].asString().find("500"), std::string::npos);
    EXPECT_NE(Test("mail")["error"].asString(), "");
    EXPECT_EQ(receiver.Requests().size(), 2U);
}

}  // namespace
