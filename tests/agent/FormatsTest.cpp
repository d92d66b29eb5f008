#include <ctl/output/AlarmFormat.h>
#include <ctl/output/HealthFormat.h>
#include <ctl/output/StatusFormat.h>
#include <ctl/output/Terminal.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <cstdlib>
#include <ctime>
#include <tuple>
#include <vector>

namespace {

constexpr long long kNow = 1763714260000;  // 2025-11-21 08:37:40 UTC

class Formats : public testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        Ctl::SetColours(false);
    }

    static Json::Value Parse(const std::string& text) {
        Json::Value value;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
        return value;
    }
    static Json::Value Alarm(const std::string& path, const std::string& diff) {
        Json::Value document;
        document["file_info"][0]["action"] = "modify";
        document["file_info"][0]["file_path"] = path;
        document["file_info"][0]["diff"] = diff;
        Json::Value report;
        report["seq"] = 7;
        report["time_ms"] = static_cast<Json::Int64>(kNow - 7000);
        report["kind"] = "data";
        report["name"] = "2";
        report["body"] = SDK::JsonUtils::JsonToString(document);
        report["outcome"] = "restored";
        report["duration_ms"] = 6.24;
        return report;
    }
};

TEST_F(Formats, AlarmWithDiff_HasItBelowAndHarmless) {
    EXPECT_EQ(Ctl::FormatAlarm(Alarm("/srv/a\n\x1b[31m", "-a\n+\x1b[2Jb"), true, kNow),
              "08:37:33  modify     /srv/a\\n\\x1b[31m  restored in 6.2 ms\n"
              "    -a\n    +\\x1b[2Jb\n");
}

TEST_F(Formats, AlarmWithItsAuthor_NamesItInTheLineAndWholeWithTheDiff) {
    Json::Value report = Alarm("/srv/x", "");
    report["who"] = Parse(
        R"({"certainty":"exact","pid":7,"exe":"/usr/bin/se\u001bd","cmdline":"sed -i","uid":33,)"
        R"("euid":0,"unit":"nginx.service","parents":[{"pid":5,"exe":"/bin/sh"}]})");
    EXPECT_EQ(Ctl::FormatAlarm(report, false, kNow),
              "08:37:33  modify     /srv/x  restored in 6.2 ms  "
              "by se\\x1bd of nginx.service, user 33 as 0, process 7\n");
    EXPECT_NE(
        Ctl::FormatAlarm(report, true, kNow)
            .find("\n    who: exact\n      program: /usr/bin/se\\x1bd\n      command: sed -i\n"
                  "      process: 7\n      user: user 33 as 0\n      unit: nginx.service\n"
                  "      started by: /bin/sh (5)\n"),
        std::string::npos);
    report["who"] = Parse(R"({"certainty":"unknown","reason":"it rested"})");
    EXPECT_EQ(Ctl::FormatAlarm(report, true, kNow),
              "08:37:33  modify     /srv/x  restored in 6.2 ms\n    who: unknown (it rested)\n");
}

TEST_F(Formats, AlarmWithoutOutcomeOrDocument_IsStillALine) {
    Json::Value report = Alarm("/srv/x", "");
    report["outcome"] = "";
    report["duration_ms"] = Json::nullValue;
    EXPECT_EQ(Ctl::FormatAlarm(report, true, kNow), "08:37:33  modify     /srv/x\n");
    report["body"] = "{\"file_info\":7,\x1b";
    EXPECT_EQ(Ctl::FormatAlarm(report, true, kNow), "08:37:33  data  2  {\"file_info\":7,\\x1b\n");
    EXPECT_NO_FATAL_FAILURE(Ctl::FormatAlarm(Json::Value(Json::objectValue), true, kNow));
}

TEST_F(Formats, Status_ShowsPathsReasonsAndWarningsHarmlessly) {
    const std::string page = Ctl::FormatStatus(Parse(R"({"protection": {"on": true},
        "health": {"state": "degraded", "reasons": [
            {"code": "module_failed", "text": "module broken\u001b", "path": ""},
            {"code": "missing", "text": "is not there", "path": "/srv/\u001bsite/"}]},
        "protected_paths": [{"path": "/srv/\u001bsite/", "state": "waiting",
                             "last_failure": "remote \u001b"}],
        "counters": {"log_records_dropped": 2, "alarms_lost": 3},
        "filenotify": {"unwatched_directories": 12,
                       "unwatched_examples": [{"path": "/srv/deep", "reason": "Permission denied"}],
                       "queue_limit_problem": "cannot be raised"},
        "rsync": {"degraded": true, "reason": "older than 3.5.0"},
        "unsafe_places": [{"path": "/var/copies"}]})"),
                                               kNow);
    for (const char* part :
         {"DEGRADED: module broken\\x1b (and 1 more).\n",
          "  ! module broken\\x1b  [module_failed]\n", "/srv/\\x1bsite/\n    waiting",
          "    ! is not there  [missing]\n", "/var/copies is not safe", "remote \\x1b",
          "2 log records were dropped  [log_records_dropped]\n", "3 alarms could not",
          "older than 3.5.0", "12 directories", "/srv/deep: Permission", "cannot be raised",
          "morvanectl explain WORD\n"}) {
        EXPECT_NE(page.find(part), std::string::npos) << part << " in\n" << page;
    }
    EXPECT_EQ(page.find('\x1b'), std::string::npos);
}

TEST_F(Formats, Headline_SaysItAll) {
    const std::string on = R"("health":{"state":"healthy"},"protection":{"on":true)";
    const std::string one = R"("protected_paths":[{"auto_restore":true}])";
    const std::string started = R"("started":1763714200)";
    for (const auto& [status, line, health] :
         std::vector<std::tuple<std::string, const char*, Ctl::Health>>{
             {"{" + on + R"(,"last_undone":1763714080},)" + one + "}",
              "Protected: 1 path. Last change undone 3 minutes ago.\n", Ctl::Health::kHealthy},
             {"{" + on + "}," + one + "," + started + "}",
              "Protected: 1 path. Nothing to undo since the agent started 1 minute ago.\n",
              Ctl::Health::kHealthy},
             {"{" + on +
                  R"(,"last_undone":1763714260},"protected_paths":[{"auto_restore":true},{}]})",
              "Protected: 1 path, and 1 only reported. Last change undone just now.\n",
              Ctl::Health::kHealthy},
             {"{" + on + R"(,"monitor_only":true},)" + one + "}",
              "Reported only: 1 path. Changes raise an alarm and are not undone.\n",
              Ctl::Health::kHealthy},
             {R"({"health":{"state":"healthy"}})",
              "Backup server: takes the backups of other hosts. No path of this host is "
              "protected.\n",
              Ctl::Health::kHealthy},
             {R"({"health":{"state":"off","reasons":[{"text":"paused","code":"x"}]}})",
              "OFF: paused.  [x]\n", Ctl::Health::kOff},
             {R"({"health":{"state":"degraded","reasons":[{"text":"gone.","path":"/a"}]}})",
              "DEGRADED: /a: gone.\n", Ctl::Health::kDegraded},
             {"{}", "DEGRADED: the agent does not say why.\n", Ctl::Health::kDegraded}}) {
        EXPECT_EQ(Ctl::FormatHeadline(Parse(status), kNow), line);
        EXPECT_EQ(Ctl::HealthOf(Parse(status)), health) << status;
    }
}

TEST_F(Formats, StatusOfAnotherShape_IsNoCrash) {
    for (
        const char* text :
        {"{}", "[]", R"({"protected_paths":{"a":1},"counters":[],"policies":7})",
         R"({"modules":"x","tasks":[1,"2",null],"rsync":[],"protection":1})",
         R"({"protection":{"on":true},"schedule":{"until":"x"},"backup":[],"unsafe_places":[1],"backup_server":{"on":1},"filenotify":[7]})",
         R"({"health":{"state":"degraded","reasons":7},"reports":[],"policies":[1]})",
         R"({"health":{"state":"off","reasons":[1,null,[]]},"undo_latency":1})"}) {
        const Json::Value status = Parse(text);
        EXPECT_NO_THROW(Ctl::FormatStatus(status, kNow)) << text;
    }
}

}  // namespace
