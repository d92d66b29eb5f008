#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <gtest/gtest.h>

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
    EXPECT_TRUE(policy.IsFor("host-1"));
    EXPECT_FALSE(policy.IsFor("host-2"));
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
