#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include "support/ProtectedSite.h"

namespace {

using test::CommandResult;

class PolicyPush : public test::ProtectedSite {
  protected:
    CommandResult ApplyText(const std::string& text) const {
        return agent_.Ctl({"policy", "apply", "sentrel_feature", "-"}, text);
    }
};

TEST_F(PolicyPush, ExitCodes_DistinguishOnOffAndRejectedAndACheckChangesNothing) {
    ASSERT_TRUE(agent_.Start());
    Json::Value policy = SitePolicy();
    const std::string good = site_.Write("good.json", SDK::JsonUtils::JsonToString(policy));
    EXPECT_EQ(agent_.Ctl({"policy", "check", "sentrel_feature", good}).exit_code, 0);
    EXPECT_EQ(agent_.Ctl({"policy", "check", "sentrel_feature", "-"}, "{").exit_code, 4);
    EXPECT_EQ(agent_.Ctl({"policy", "list"}).out, "");
    policy["note"] = 1;  // has a warning
    const CommandResult on = ApplyText(SDK::JsonUtils::JsonToString(policy));
    EXPECT_EQ(on.exit_code, 0) << on.err;
    EXPECT_NE(on.err.find("/note"), std::string::npos) << on.err;
    EXPECT_EQ(on.out, "sentrel_feature: on\n");
    policy["enabled"] = false;
    const CommandResult off = ApplyText(SDK::JsonUtils::JsonToString(policy));
    EXPECT_EQ(off.exit_code, 3) << off.err;
    EXPECT_EQ(agent_.Ctl({"policy", "list"}).out.find("sentrel_feature  off"), 0u);
    policy["content"]["os_type"] = 7;
    policy["enabled"] = true;
    const CommandResult rejected = ApplyText(SDK::JsonUtils::JsonToString(policy));
    EXPECT_EQ(rejected.exit_code, 4);
    EXPECT_NE(rejected.err.find("/content/os_type"), std::string::npos) << rejected.err;
    EXPECT_EQ(agent_.Ctl({"policy", "apply", "no_feature", "-"}, "{}").exit_code, 4);
    EXPECT_EQ(agent_.Ctl({"policy", "apply", "../../x", "-"}, "{}").exit_code, 4);
}

TEST_F(PolicyPush, BadPolicies_AreRejectedAndTheLastGoodOneStaysInForce) {
    Protect();
    Json::Value wrong_type = SitePolicy();
    wrong_type["content"]["dirlist"][0]["filepath"] = 7;
    for (const std::string& bad :
         {std::string(), std::string("{\"enabled\": true, \0", 19),
          std::string(10 * 1024 * 1024, ' '), SDK::JsonUtils::JsonToString(wrong_type)}) {
        const CommandResult result = ApplyText(bad);
        EXPECT_EQ(result.exit_code, bad.size() > (1u << 22) ? 1 : 4) << bad.substr(0, 80);
        EXPECT_FALSE(result.err.empty());
    }
    const CommandResult shown = agent_.Ctl({"policy", "show", "sentrel_feature"});
    EXPECT_EQ(shown.out, SDK::JsonUtils::JsonToString(SitePolicy()) + "\n");
    EXPECT_TRUE(TamperingIsUndone("index.html"));
}

TEST_F(PolicyPush, BackupFolderOfAnotherUser_IsNotUsedNorRestoredFromAfterARestart) {
    Protect();
    agent_.Stop();
    const std::string copy = backup_.Path() + site_.Path("index.html");
    ASSERT_TRUE(std::filesystem::exists(copy));
    std::ofstream(copy) << "planted";
    ASSERT_EQ(::chown(backup_.Path().c_str(), 33, 33), 0);
    ASSERT_TRUE(agent_.Start());
    const Json::Value policy = agent_.Status()["policies"][0];
    EXPECT_EQ(policy["state"], "failed");
    EXPECT_NE(policy["last_rejection"]["message"].asString().find("belongs to user 33"),
              std::string::npos)
        << policy;
    EXPECT_EQ(test::TempDir::Read(copy), "planted");
    const CommandResult again = ApplyText(SDK::JsonUtils::JsonToString(SitePolicy()));
    EXPECT_EQ(again.exit_code, 4);
    EXPECT_NE(again.err.find("/content/dirlist/0/backup_path"), std::string::npos) << again.err;
    ASSERT_EQ(::chown(backup_.Path().c_str(), 0, 0), 0);
    ASSERT_EQ(agent_.Apply(SitePolicy()), 0);
    ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
}

TEST_F(PolicyPush, PolicyWithoutAPathList_KeepsThePathsAfterARestart) {
    Protect();
    Json::Value policy = SitePolicy();
    policy["content"].removeMember("dirlist");
    EXPECT_EQ(ApplyText(R"({"enabled": false})").exit_code, 3);
    EXPECT_EQ(ApplyText(SDK::JsonUtils::JsonToString(policy)).exit_code, 0);
    EXPECT_TRUE(AwaitProtection()) << agent_.Status();
    agent_.Stop();
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
}

}  // namespace
