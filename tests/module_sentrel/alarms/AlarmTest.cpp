#include <json/value.h>

#include <ctime>

#include "base/WorkClock.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "fixtures/FakeTasks.h"
#include "fixtures/Installation.h"
#include "status/SentrelStatus.h"

namespace {

using Engine::SentrelCacheMsg;
using Engine::SentrelInotifyTask;
using Poco::Message;

constexpr std::time_t kNow = 1'800'000'000;

SentrelCacheMsg Alarm(const std::string& path, std::time_t when,
                      Engine::alarm_type type = Engine::ALARM_MODIFY) {
    SentrelCacheMsg msg;
    msg.occur_time = when;
    msg.count = 1;
    msg.type = type;
    msg.type_counts = {{Engine::ALARM_DELETE, 0}, {Engine::ALARM_MODIFY, 0}};
    msg.file_path = path;
    return msg;
}

class AlarmCache : public ::testing::Test {
  protected:
    AlarmCache() {
        Engine::WorkClock::SetSource([] { return kNow; });
    }
    test::Installation install_;
    SentrelInotifyTask task_{install_.state};
};

TEST_F(AlarmCache, RepeatedAlarm_IsCountedPerType) {
    SentrelCacheMsg msg = Alarm("/a", kNow);
    EXPECT_FALSE(task_.IsMessageMerged(msg));
    task_.AddMessageToCache(msg);
    EXPECT_EQ(msg.type_counts[Engine::ALARM_MODIFY], 1U);
    EXPECT_TRUE(task_.IsMessageMerged(Alarm("/a", kNow)));
    EXPECT_TRUE(task_.IsMessageMerged(Alarm("/a", kNow, Engine::ALARM_DELETE)));
    EXPECT_FALSE(task_.IsMessageMerged(Alarm("/a", kNow, Engine::ALARM_ADD)));
    EXPECT_FALSE(task_.IsMessageMerged(Alarm("/a/", kNow)));
    SentrelCacheMsg other_key = Alarm("/a", kNow);
    other_key.merge_key = 1;
    EXPECT_FALSE(task_.IsMessageMerged(other_key));
    const SentrelCacheMsg& cached = task_.alarm_cache.front();
    EXPECT_EQ(cached.count, 3U);
    EXPECT_EQ(cached.type_counts.at(Engine::ALARM_MODIFY), 2U);
    EXPECT_EQ(cached.type_counts.at(Engine::ALARM_DELETE), 1U);
}

TEST_F(AlarmCache, FullCache_DropsTheOldestAlarm) {
    for (int at = 0; at < 1030; ++at) {
        SentrelCacheMsg msg = Alarm("/" + std::to_string(at), kNow);
        task_.AddMessageToCache(msg);
    }
    EXPECT_EQ(task_.alarm_cache.size(), 1025U);
    EXPECT_EQ(task_.alarm_cache.front().file_path, "/5");
    EXPECT_FALSE(task_.IsMessageMerged(Alarm("/4", kNow)));
    EXPECT_TRUE(task_.IsMessageMerged(Alarm("/1029", kNow)));
    task_.alarm_cache.push_front(Alarm("/4", kNow));
    task_.alarm_cache.pop_back();
    EXPECT_TRUE(task_.IsMessageMerged(Alarm("/4", kNow)));
    EXPECT_FALSE(task_.IsMessageMerged(Alarm("/1029", kNow)));
}

TEST_F(AlarmCache, CleanUp_RemovesOldAndFutureAlarmsOnlyFromTheFront) {
    for (const auto& [path, when] :
         std::vector<std::pair<std::string, std::time_t>>{{"/old", kNow - 61},
                                                          {"/future", kNow + 61},
                                                          {"/young", kNow - 60},
                                                          {"/behind", kNow - 500}}) {
        SentrelCacheMsg msg = Alarm(path, when);
        task_.AddMessageToCache(msg);
    }
    task_.CleanOldMessageFromCache();
    ASSERT_EQ(task_.alarm_cache.size(), 2U);
    EXPECT_EQ(task_.alarm_cache.front().file_path, "/young");
    EXPECT_EQ(
        install_.Debugs("clean old msg from cache: [" + std::to_string(kNow - 61) + "] /old [1]"),
        1);
}

TEST(AlarmReport, FirstAlarmOfAFile_IsSentWithItsDocument) {
    test::Installation install;
    const test::RunningEngine running(install.log);
    SentrelInotifyTask task(install.state);
    const std::string path = "/site/\"q\"\n\xff.html";
    task.SentrelSendAlarm(path, Engine::ALARM_DELETE, "d", "a");
    task.SentrelSendAlarm(path, Engine::ALARM_MODIFY, "", "");
    task.SentrelSendAlarm("/other", static_cast<Engine::alarm_type>(9), "", "");
    const auto seen = running.fakes->data.Seen();
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[0].name, "2");
    EXPECT_EQ(seen[0].note.outcome, "reported only");
    EXPECT_LT(seen[0].note.duration_ms, 0);
    Json::Value alarm;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(seen[0].body.data(), seen[0].body.size(), alarm), 0);
    EXPECT_EQ(alarm["event_id"].asString().size(), 36U);
    EXPECT_NEAR(static_cast<double>(alarm["occur_time"].asInt64()),
                static_cast<double>(std::time(nullptr)), 5);
    alarm.removeMember("event_id");
    alarm.removeMember("occur_time");
    EXPECT_EQ(
        test::Text(alarm),
        R"({"attack_phase":4,"attack_tag":3,"confidence":70,"detect_module":"sentrel_module",)"
        R"("event_category":8000,"event_classid":"sentrel_0001","event_count":1,)"
        R"("event_name":"Linux web tamper protection","event_type":8003,"file_info":)"
        R"([{"action":"delete","diff":"d","diff_attr":"a","file_path":)"
        "\"/site/\\\"q\\\"\\n\xef\xbf\xbd.html\"}],\"severity\":2}");
    EXPECT_NE(seen[1].body.find(R"("action":"unknown")"), std::string::npos);
    EXPECT_EQ(install.Infos("sentrel alarm:" + seen[0].body), 1);
}

}  // namespace
