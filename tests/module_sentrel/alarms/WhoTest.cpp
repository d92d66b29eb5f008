#include <gtest/gtest.h>
#include <support/WaitFor.h>

#include <atomic>
#include <mutex>

#include "feature_sentrel/alarms/AlarmReporter.h"
#include "feature_sentrel/alarms/MergedAlarms.h"
#include "feature_sentrel/attribution/WhoAsker.h"

namespace {

using Engine::WhoAsker;

/// A sentry that answers, or does not.
class Who : public testing::Test {
  protected:
    bool Answer(const Json::Value& request, Json::Value& reply) {
        const std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
        if (request["op"] == "who.watch") return true;
        if (!error_.empty()) reply["error"] = error_;
        for (const Json::Value& one : request["of"]) {
            Json::Value who(Json::objectValue);
            who["exe"] = "/bin/changer of " + one["path"].asString();
            if (error_.empty()) reply["answer"]["who"].append(who);
        }
        return true;
    }
    void Connect(const char* state) {
        Json::Value sentry;
        sentry["process"] = ++process_;
        sentry["who"]["state"] = state;
        asker_.Tick(sentry);
    }
    std::string TextOf(const std::shared_ptr<const Engine::Attribution>& who) {
        EXPECT_TRUE(test::WaitFor([&] { return who->IsReady(); }, std::chrono::seconds(5)));
        return who->Text();
    }

    std::mutex mutex_;
    std::vector<Json::Value> requests_;
    std::string error_;
    int process_ = 0;
    WhoAsker asker_{[this](const auto& request, auto& reply) { return Answer(request, reply); },
                    [] {}};
};

TEST_F(Who, SentryThatConnects_IsToldThePathsAndAskedOfChangesFromThenOn) {
    Engine::SentrelDirRule rule;
    rule.real_path = "/site/";
    rule.ignored_subdir = {"cache"};
    asker_.Watch({rule});
    EXPECT_EQ(asker_.Ask("/site/a", {}), nullptr);
    Connect("off");
    EXPECT_EQ(asker_.Ask("/site/a", {}), nullptr);
    EXPECT_TRUE(requests_.empty());
    Connect("running");
    ASSERT_EQ(requests_.size(), 1U);
    EXPECT_EQ(requests_[0]["paths"][0]["path"], "/site/");
    EXPECT_EQ(requests_[0]["paths"][0]["excluded"][0], "/site/cache");
    const Engine::Attribution::TimePoint time{std::chrono::nanoseconds(1234567890123)};
    EXPECT_EQ(TextOf(asker_.Ask("/site/a", time)), R"({"exe":"/bin/changer of /site/a"})");
    EXPECT_EQ(requests_[1]["of"][0]["at"], "1234567890123");
}

TEST_F(Who, SentryThatDoesNotAnswer_LeavesAllThatWaitUnknown) {
    Connect("running");
    error_ = "it is silent";
    std::vector<std::shared_ptr<const Engine::Attribution>> asked;
    for (int i = 0; i < 1000; ++i) asked.push_back(asker_.Ask("/site/a", {}));
    for (const auto& one : asked) {
        ASSERT_EQ(TextOf(one), R"({"certainty":"unknown","reason":"it is silent"})");
    }
}

TEST_F(Who, Alarm_WaitsForItsAuthorAndStopsWaitingAtTheEnd) {
    Connect("running");
    std::vector<std::string> sent;
    std::list<Engine::SentrelCacheMsg> cache;
    Engine::AlarmReporter reporter(
        cache, [&](const Engine::Alarm& alarm) { sent.push_back(alarm.note.who); }, [] {});
    {
        const std::lock_guard<std::mutex> silence(mutex_);
        Engine::Alarm alarm;
        alarm.file = "/site/a";
        reporter.Raise(alarm, Engine::PinnedFile(), "", asker_.Ask("/site/a", {}));
        EXPECT_FALSE(reporter.SendNext());
    }
    asker_.Stop();
    reporter.Finish();
    EXPECT_EQ(sent, std::vector<std::string>{R"({"exe":"/bin/changer of /site/a"})"});
}

TEST(MergedAlarms, AuthorsOfRepeats_AreAddedToTheFirst) {
    Engine::MergedAlarms merged;
    for (const char* who : {R"({"pid":1})", R"({"exe":"/b","pid":2,"uid":3})", R"({"pid":2})",
                            R"({"pid":1,"euid":0})", R"({"certainty":"unknown"})"}) {
        merged.Add({"/page", Engine::ALARM_MODIFY, "", "", {"restored", 1, true, "", who}}, false,
                   Engine::MergedAlarms::Clock::time_point{});
    }
    EXPECT_EQ(merged.TakeAll().at(0).note.who,
              R"({"others":[{"exe":"/b","pid":2,"uid":3}],"pid":1})");
}

}  // namespace
