#include <control/status/HealthSummary.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <string>
#include <vector>

namespace {

struct Case {
    const char* document;
    std::vector<const char*> answers;
    const char* state;
    const char* codes;
};

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
    return value;
}

TEST(HealthSummary, WorstAnswer_DecidesAndOwnReasonsComeFirst) {
    const char* const healthy = R"({"state":"healthy","reasons":[]})";
    const char* const held = R"({"state":"degraded","reasons":[{"code":"held"}]})";
    const char* const off = R"({"state":"off","reasons":[{"code":"off"}]})";
    for (const auto& [document, answers, state, codes] : std::vector<Case>{
             {"{}", {healthy}, "healthy", ""},
             {"{}", {}, "off", "no_protection_module "},
             {"{}", {R"({"reasons":[{"code":"x"}]})", "[]"}, "off", "no_protection_module "},
             {"{}", {held, healthy}, "degraded", "held "},
             {"{}", {R"({"state":"strange","reasons":7})"}, "degraded", ""},
             {R"({"modules":[{"state":"failed"},{"state":"running"}]})",
              {held},
              "degraded",
              "module_failed held "},
             {R"({"policies":[{"state":"failed"},{"state":"on"}]})",
              {off},
              "off",
              "policy_failed off "},
             {R"({"tasks":[{"id":"a","state":"stalled"},{"id":"b","init_failed":true},{}]})",
              {healthy},
              "degraded",
              "task_stalled task_init_failed "},
             {R"({"notifications":[{"channel":"mail","degraded":true},{"degraded":false},7]})",
              {healthy},
              "degraded",
              "notification_failing "}}) {
        Agent::HealthSummary summary;
        for (const char* answer : answers) summary.Add(Parse(answer));
        summary.AddFromDocument(Parse(document));
        const Json::Value health = summary.ToJson();
        std::string found;
        for (const Json::Value& reason : health["reasons"])
            found += reason["code"].asString() + " ";
        EXPECT_EQ(health["state"], state) << document;
        EXPECT_EQ(found, codes) << document;
    }
}

}  // namespace
