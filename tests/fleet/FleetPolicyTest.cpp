#include <sdk/text/JsonUtils.h>

#include "support/FleetHost.h"

namespace {

class FleetPolicy : public test::FleetHost {
  protected:
    void SetUp() override {
        EXPECT_EQ(MakeKey("operator"), 0);
        EXPECT_EQ(MakeKey("stranger"), 0);
        Json::Value fleet(Json::objectValue);
        fleet["policy_key"] = collector_.Path("operator.pub");
        JoinFleet(fleet);
        ASSERT_TRUE(broker_.Start());
        ASSERT_TRUE(collector_.Start());
        ASSERT_TRUE(agent_.Start());
        ASSERT_TRUE(Await([&] { return !HostAtCollector().isNull(); }));
    }

    int MakeKey(const std::string& name) const {
        return collector_
            .Run({"policy", "keygen", "--key", collector_.Path(name + ".key"), "--public",
                  collector_.Path(name + ".pub")})
            .exit_code;
    }

    /// Signs and publishes; waits for the answer of the host, its verdict.
    std::string Push(const Json::Value& policy, int version, const std::string& signer,
                     const std::string& host = kAgentId) {
        const std::string before = Answer()["sha256"].asString();
        const std::string file = scratch_.Write("policy", SDK::JsonUtils::JsonToString(policy));
        const test::CommandResult document =
            collector_.Run({"policy", "sign", "--key", collector_.Path(signer + ".key"), "--number",
                            std::to_string(version), "--host", host, "sentrel_feature", file});
        EXPECT_EQ(document.exit_code, 0) << document.err;
        const std::string signed_file = scratch_.Write("signed", document.out);
        const test::CommandResult published =
            collector_.Run({"policy", "publish", "--user", "operator", signed_file});
        EXPECT_EQ(published.exit_code, 0) << published.err;
        EXPECT_TRUE(Await([&] { return Answer()["sha256"].asString() != before; }));
        return Answer()["verdict"].asString();
    }

    /// The last answer of the host.
    Json::Value Answer() const {
        const std::vector<Json::Value> results = collector_.Lines({"results"});
        Json::Value answer(Json::objectValue);
        if (results.empty()) return answer;
        const std::string text = results[0]["result"].asString();
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), answer);
        return answer;
    }

    test::TempDir scratch_;
};

TEST_F(FleetPolicy, SignedPolicy_IsAppliedAndForgedOrOlderOnesAreRefused) {
    Json::Value wrong = SitePolicy();
    wrong["content"]["dirlist"][0]["filepath"] = "not absolute";
    EXPECT_EQ(Push(SitePolicy(), 1, "stranger"), "refused") << Answer();
    EXPECT_EQ(Push(wrong, 2, "operator"), "rejected") << Answer();
    EXPECT_FALSE(Answer()["errors"].empty());
    ASSERT_EQ(Push(SitePolicy(), 3, "operator"), "on") << Answer();
    ASSERT_TRUE(AwaitProtection());
    EXPECT_TRUE(TamperingIsUndone("index.html"));

    Json::Value off = SitePolicy();
    off["enabled"] = false;
    EXPECT_EQ(Push(off, 2, "operator"), "refused") << "an older one";
    EXPECT_EQ(Push(off, 3, "operator"), "refused") << "the same version with another content";
    EXPECT_EQ(Push(off, 4, "stranger"), "refused") << "the key of another";
    agent_.Kill();
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitProtection());
    EXPECT_TRUE(TamperingIsUndone("about.html"));
    EXPECT_EQ(Push(off, 3, "operator"), "refused") << "an older one after a start";
    EXPECT_EQ(Push(off, 5, "operator"), "off") << Answer();
}

}  // namespace
