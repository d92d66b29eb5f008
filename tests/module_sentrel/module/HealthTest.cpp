#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>
#include <status/LatencyHistogram.h>
#include <status/ProtectionHealth.h>

#include <string>
#include <vector>

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
    return value;
}

Json::Value Healthy() {
    return Parse(R"({"protection":{"on":true,"working":true},"backup":{"type":0},
        "protected_paths":[{"path":"/srv/","state":"ready","backup_path":"/copies/",
                            "backup_complete":true,"auto_restore":true,"held":0}]})");
}

/// "state: code code".
std::string Verdict(const Json::Value& status) {
    const Json::Value health = Engine::ProtectionHealth(status);
    std::string text = health["state"].asString() + ":";
    for (const Json::Value& reason : health["reasons"]) {
        text += " " + reason["code"].asString();
        EXPECT_FALSE(reason["text"].asString().empty());
    }
    return text;
}

TEST(ProtectionHealth, WhateverKeepsAChangeFromBeingUndone_IsAReason) {
    ASSERT_EQ(Verdict(Healthy()), "healthy:");
    struct Case {
        const char* object;  ///< "": the document, "path": the protected path
        const char* member;
        const char* value;
        const char* verdict;
    };
    for (const auto& [object, member, value, verdict] : std::vector<Case>{
             {"", "protection", R"({"on":false})", "off: off"},
             {"", "protection", R"({"on":true,"working":false})", "off: paused"},
             {"", "protected_paths", "[]", "off: no_path"},
             {"path", "state", R"(["waiting"])", "degraded: missing"},
             {"path", "state", R"(["walking"])", "degraded: walking"},
             {"path", "state", R"(["degraded"])", "degraded: unwatched_directories"},
             {"path", "state", R"(["unwatched"])", "degraded: not_watched"},
             {"path", "backup_complete", "[false]", "degraded: backup_incomplete"},
             {"path", "backup_path", R"([""])", "degraded: no_backup_path"},
             {"path", "problem", R"(["it leads elsewhere"])", "degraded: not_in_place"},
             {"path", "held", "[2]", "degraded: held"},
             {"path", "open_objects", R"({"count":1})", "degraded: open_objects"},
             {"path", "attributes_not_compared", R"(["user"])",
              "degraded: attributes_not_compared"},
             {"", "pauses", R"([{"path":"/srv/","reason":"x"}])", "degraded: pause"},
             {"", "backlog", R"({"failed":1})", "degraded: not_undone"},
             {"", "backlog", R"({"given_up":1,"deferred":9})", "degraded: not_undone"},
             {"", "backlog", R"({"deferred":9,"trees_to_compare":1})", "healthy:"},
             {"", "unsafe_places", R"([{"path":"/copies/","reason":"x"}])",
              "degraded: unsafe_place"},
             {"", "unsafe_places", R"([{"path":"/opt/","reason":"x"}])", "healthy:"},
             {"", "backup_server", R"({"on":true})", "degraded: backup_server_down"},
             {"", "backup_server", R"({"on":true,"running":true})", "healthy:"},
             {"", "rsync", R"({"degraded":true})", "healthy:"}}) {
        Json::Value status = Healthy();
        Json::Value given = Parse(value);
        if (given.isArray() && given.size() == 1 && !given[0].isObject()) given = given[0];
        (*object == '\0' ? status : status["protected_paths"][0])[member] = given;
        EXPECT_EQ(Verdict(status), verdict) << member << " " << value;
    }
}

TEST(ProtectionHealth, HostThatOnlyTakesBackups_IsHealthyWhileItsDaemonRuns) {
    EXPECT_EQ(Verdict(Parse(R"({"backup_server":{"on":true,"running":true}})")), "healthy:");
    EXPECT_EQ(Verdict(Parse(R"({"backup_server":{"on":true,"running":false}})")),
              "degraded: backup_server_down");
}

TEST(ProtectionHealth, CopiesMadeByOthers_AreNotWaitedFor) {
    Json::Value status = Healthy();
    status["backup"]["type"] = 3;
    status["protected_paths"][0]["backup_complete"] = false;
    EXPECT_EQ(Verdict(status), "healthy:");
}

TEST(ProtectionHealth, BackupThatFails_SaysWhy) {
    Json::Value status = Healthy();
    status["protected_paths"][0]["backup_complete"] = false;
    status["protected_paths"][0]["last_failure"] = "local backup: no space";
    EXPECT_EQ(Engine::ProtectionHealth(status)["reasons"][0]["text"],
              "the backup copy cannot be completed: no space");
}

TEST(LatencyHistogram, Durations_FallIntoCumulativeBuckets) {
    Engine::LatencyHistogram histogram;
    for (const double duration_ms : {-1.0, 0.5, 0.6, 70000.0}) histogram.Note(duration_ms);
    const Json::Value answer = histogram.ToJson();
    EXPECT_EQ(answer["buckets"][0]["count"].asInt(), 1) << "the bound belongs to its bucket";
    EXPECT_EQ(answer["buckets"][1]["count"].asInt(), 2);
    EXPECT_EQ(answer["buckets"][11]["count"].asInt(), 2);
    EXPECT_EQ(answer["count"].asInt(), 3);
    EXPECT_NEAR(answer["sum_ms"].asDouble(), 70001.1, 0.01);
}

}  // namespace
