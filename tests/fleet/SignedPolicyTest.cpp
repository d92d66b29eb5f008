#include <fleet/BrokerSettings.h>
#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

namespace {

TEST(SignedPolicy, ChangedDocument_IsRefused) {
    const auto key = SDK::SigningKey::Generate();
    const auto other = SDK::SigningKey::Generate();
    const std::string good = Fleet::Sign({7, {"host-1"}, "sentrel_feature", "{\"a\": 1}"}, *key);
    Fleet::SignedPolicy policy;
    std::string error;
    ASSERT_TRUE(Fleet::ReadSigned(good, *key, policy, error)) << error;
    EXPECT_EQ(policy.version, 7);
    EXPECT_EQ(policy.text, "{\"a\": 1}");
    EXPECT_TRUE(Fleet::IsFor(policy.hosts, {"host-1", {}}));
    EXPECT_FALSE(Fleet::IsFor(policy.hosts, {"host-2", {"host-1"}}));
    EXPECT_TRUE(Fleet::IsFor({"@web"}, {"host-2", {"db", "web"}}));
    EXPECT_FALSE(Fleet::IsFor({"web"}, {"host-2", {"web"}}));
    EXPECT_FALSE(Fleet::ReadSigned(good, *other, policy, error));
    // Every single changed byte of the document.
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string changed = good;
        changed[i] = changed[i] == '1' ? '2' : '1';
        EXPECT_FALSE(Fleet::ReadSigned(changed, *key, policy, error)) << changed;
    }
    for (const char* text : {"", "[]", "{}", "{\"signature\":1,\"content\":[]}", "null"}) {
        EXPECT_FALSE(Fleet::ReadSigned(text, *key, policy, error)) << text;
    }
}

TEST(SignedPolicy, IncompleteContent_IsRefusedAlthoughItIsSigned) {
    const auto key = SDK::SigningKey::Generate();
    Fleet::SignedPolicy policy;
    std::string error;
    const Fleet::SignedPolicy wrong[] = {
        {0, {"*"}, "f", "{}"}, {1, {}, "f", "{}"}, {1, {"*"}, "", "{}"}, {1, {"*"}, "../f", "{}"}};
    for (const Fleet::SignedPolicy& each : wrong) {
        EXPECT_FALSE(Fleet::ReadSigned(Fleet::Sign(each, *key), *key, policy, error));
    }
}

TEST(BrokerSettings, WrongSection_IsRefusedWithItsPlace) {
    const struct {
        const char* json;
        const char* error;  ///< begins with; empty: it is right
    } cases[] = {
        {R"({"host":"127.0.0.1"})", ""},
        {R"({"host":"broker.example","ca_file":"ca.pem"})", ""},
        {R"({"host":"broker.example"})", "/broker/ca_file: "},
        {R"({})", "/broker/host: "},
        {R"([])", "/broker: "},
        {R"({"host":7})", "/broker/host: "},
        {R"({"host":"127.0.0.1","port":70000})", "/broker/port: "},
        {R"({"host":"127.0.0.1","password":"x"})", "/broker/password: "},
        {R"({"host":"b","ca_file":"ca.pem","cert_file":"c.pem"})", "/broker/cert_file: "},
    };
    for (const auto& each : cases) {
        Json::Value json;
        std::string error;
        Fleet::BrokerSettings settings;
        const std::string text(each.json);
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), json), 0) << text;
        const std::string expected(each.error);
        EXPECT_EQ(Fleet::ReadBrokerSettings(json, "/broker", settings, error), expected.empty());
        EXPECT_EQ(error.substr(0, expected.size()), expected) << text;
    }
}

TEST(Topics, HostileTopic_IsNone) {
    EXPECT_EQ(Fleet::ParseTopic("sentrel/a-1/policy/f/result")->channel, "result");
    EXPECT_EQ(Fleet::ParseTopic("sentrel/a-1/report/alarm")->leaf, "alarm");
    for (const std::string& topic :
         {std::string("sentrel/../report/alarm"), std::string("sentrel//state"),
          std::string("sentrel/a/state/x"), std::string("sentrel/a/report/"),
          std::string("other/a/state"), std::string("sentrel/a/policy/f/result/x"),
          std::string("sentrel/a b/state"), "sentrel/" + std::string(65, 'a') + "/state",
          std::string("sentrel/a\0b/state", 17), std::string(100000, '/')}) {
        EXPECT_FALSE(Fleet::ParseTopic(topic)) << topic;
    }
}

}  // namespace
