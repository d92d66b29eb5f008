#include <Poco/Channel.h>
#include <Poco/Event.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "BoundedAsyncChannel.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"
#include "support/TempDir.h"

namespace {

using Poco::Message;
using SDK::LoggerUtils;

/// Keeps the texts; waits inside the first record until released, and fails while told to.
class SlowTarget : public Poco::Channel {
  public:
    void log(const Message& record) override {
        entered.set();
        released.wait();
        if (failing) throw std::runtime_error("full");
        texts.push_back(record.getText());
    }
    void close() override { ++closed; }

    Poco::Event entered;
    Poco::Event released{Poco::Event::EVENT_MANUALRESET};
    std::vector<std::string> texts;
    int closed = 0;
    bool failing = false;
};

Message Record(const std::string& text) {
    return {"test", text, Message::PRIO_ERROR};
}

TEST(AsyncChannel, FullQueue_DropsCountsAndTells) {
    Poco::AutoPtr<SlowTarget> target(new SlowTarget);
    Poco::AutoPtr<SDK::BoundedAsyncChannel> channel(new SDK::BoundedAsyncChannel(2));
    channel->log(Record("before the start"));
    channel->Start(target);
    channel->log(Record("1"));
    target->entered.wait();  // the worker now holds "1"
    for (const char* text : {"2", "3", "4", "5"}) channel->log(Record(text));
    EXPECT_EQ(channel->Dropped(), 2U);
    target->released.set();
    channel->Stop();
    channel->log(Record("after the end"));
    EXPECT_EQ(target->texts.front(), "1");
    EXPECT_EQ(target->texts.size(), 4U);
    EXPECT_EQ(std::count(target->texts.begin(), target->texts.end(), "dropped 2 log records"), 1);
    EXPECT_EQ(std::count(target->texts.begin(), target->texts.end(), "3"), 1);
    EXPECT_EQ(target->closed, 1);
}

TEST(AsyncChannel, FailingTarget_IsOpenedAnewAndCounted) {
    Poco::AutoPtr<SlowTarget> target(new SlowTarget);
    Poco::AutoPtr<SDK::BoundedAsyncChannel> channel(new SDK::BoundedAsyncChannel(8));
    target->released.set();
    target->failing = true;
    channel->Start(target);
    channel->log(Record("lost"));
    channel->Stop();
    EXPECT_EQ(channel->Dropped(), 1U);
    EXPECT_GE(target->closed, 2);
    target->failing = false;
    channel->Start(target);
    channel->log(Record("kept"));
    channel->Stop();
    EXPECT_EQ(target->texts, (std::vector<std::string>{"kept", "dropped 1 log records"}));
}

class Log : public testing::Test {
  protected:
    /// Logs to the folder `name` of the test's own directory.
    void Configure(const std::string& name, const std::string& level) {
        settings_.directory = dir_.Path(name);
        settings_.level = level;
        std::string error;
        ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(settings_, error)) << error;
    }

    /// All that has been logged to that folder.
    std::string Logged(const std::string& name) {
        LoggerUtils::GetInstance()->Shutdown();
        return test::TempDir::Read(dir_.Path(name + "/agent.log"));
    }

    LoggerUtils::Settings settings_;
    test::TempDir dir_;
};

TEST_F(Log, Records_AreOneLineWithTheirSource) {
    Configure("log", "information");
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("module_x", 0);
    SDK_LOG(logger, PRIO_INFORMATION, "saw %s %d", std::string("a\nb\x1B"), 7);
    SDK_LOG(logger, PRIO_DEBUG, "%s", std::string("quiet"));
    SDK_LOG(static_cast<Poco::Logger*>(nullptr), PRIO_FATAL, "nowhere");
    const std::string text = Logged("log");
    EXPECT_NE(text.find(" module_x "), std::string::npos) << text;
    EXPECT_NE(text.find(" LogTest.cpp:"), std::string::npos) << text;
    EXPECT_NE(text.find("saw a\\nb\\x1b 7\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST_F(Log, Levels_AreTheRootsUnlessAskedFor) {
    LoggerUtils* logs = LoggerUtils::GetInstance();
    Poco::Logger* early = &Poco::Logger::get("early");
    Poco::Logger* loud = logs->GetModuleLogger("loud", Message::PRIO_TRACE);
    Configure("one", "warning");
    Poco::Logger* late = logs->GetModuleLogger("late", 0);
    for (Poco::Logger* logger : {early, loud, late, logs->GetRootLogger()}) {
        SDK_LOG(logger, PRIO_WARNING, "%s warns", "<" + logger->name() + ">");
        SDK_LOG(logger, PRIO_INFORMATION, "%s informs", "<" + logger->name() + ">");
    }
    const std::string text = Logged("one");
    for (const char* name : {"<early>", "<loud>", "<late>", "<>"}) {
        EXPECT_NE(text.find(std::string(name) + " warns"), std::string::npos) << name;
    }
    EXPECT_NE(text.find("<loud> informs"), std::string::npos);
    EXPECT_EQ(text.find("<early> informs"), std::string::npos);
    EXPECT_EQ(text.find("<late> informs"), std::string::npos);
}

TEST_F(Log, ConfiguredAgain_WritesToTheNewPlaceOnly) {
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("m", 0);
    Configure("one", "information");
    SDK_LOG(logger, PRIO_ERROR, "first");
    Configure("two", "debug");
    SDK_LOG(logger, PRIO_DEBUG, "second");
    LoggerUtils::GetInstance()->Shutdown();
    SDK_LOG(logger, PRIO_ERROR, "third");
    Configure("two", "information");
    SDK_LOG(logger, PRIO_ERROR, "fourth");
    EXPECT_NE(Logged("one").find("first\n"), std::string::npos);
    EXPECT_EQ(Logged("one").find("second"), std::string::npos);
    const std::string two = Logged("two");
    EXPECT_NE(two.find("second\n"), std::string::npos);
    EXPECT_EQ(two.find("third"), std::string::npos);
    EXPECT_NE(two.find("fourth\n"), std::string::npos);
}

TEST_F(Log, FullFiles_AreRotatedAndTheOldestGo) {
    settings_.rotate_bytes = 1000;
    settings_.keep_files = 2;
    Configure("log", "information");
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetRootLogger();
    for (int record = 0; record < 100; ++record) SDK_LOG(logger, PRIO_ERROR, "record %d", record);
    EXPECT_NE(Logged("log").find("record 99"), std::string::npos);
    const std::filesystem::directory_iterator files(dir_.Path("log"));
    EXPECT_EQ(std::distance(files, {}), 3);
}

TEST_F(Log, UnusableSettings_AreRefusedInWords) {
    std::string error;
    settings_.directory = dir_.Write("file", "") + "/log";
    EXPECT_FALSE(LoggerUtils::GetInstance()->Configure(settings_, error));
    EXPECT_NE(error.find("Not a directory"), std::string::npos) << error;
    settings_.directory = dir_.Path();
    settings_.level = "shouting";
    EXPECT_FALSE(LoggerUtils::GetInstance()->Configure(settings_, error));
    EXPECT_NE(error.find("shouting"), std::string::npos) << error;
    settings_.level = "error";
    std::filesystem::create_directories(dir_.Path(settings_.file_name));
    EXPECT_FALSE(LoggerUtils::GetInstance()->Configure(settings_, error));
    EXPECT_NE(error.find(dir_.Path()), std::string::npos) << error;
}

}  // namespace
