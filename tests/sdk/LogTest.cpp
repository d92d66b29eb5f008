#include <Poco/Channel.h>
#include <Poco/Event.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "log/BoundedAsyncChannel.h"
#include "sdk/log/Log.h"
#include "support/LogCapture.h"

namespace {

using Poco::Message;

/// Keeps the texts; blocks in the first record until released; fails while `failing`.
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

TEST(Log, Records_AreOneLineWithTheirSource) {
    const test::LogCapture log;
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("module_x", 0);
    SDK_LOG(logger, PRIO_INFORMATION, "saw %s %d", std::string("a\nb\x1B"), 7);
    SDK_LOG(static_cast<Poco::Logger*>(nullptr), PRIO_FATAL, "nowhere");
    ASSERT_EQ(log.Lines().size(), 1U);
    const std::string line = log.Lines()[0];
    for (const char* part : {" module_x ", " LogTest.cpp:", "saw a\\nb\\x1b 7"}) {
        EXPECT_NE(line.find(part), std::string::npos) << line;
    }
}

}  // namespace
