#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include "support/ProtectedSite.h"

namespace {

using namespace std::chrono_literals;
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
    const CommandResult on = ApplyText(SDK::JsonUtils::JsonToString(policy));
    EXPECT_EQ(on.exit_code, 0) << on.err;
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

TEST_F(PolicyPush, Schedule_StaysAfterItsPolicyUntilARestart) {
    ASSERT_TRUE(agent_.Start());
    Json::Value policy = SitePolicy();
    const Json::Value without = policy;
    policy["content"]["distime_enable"] = true;
    policy["content"]["disable_timerange"].append("0:00-23:59");
    for (int day = 0; day < 7; ++day) policy["content"]["disable_week"].append(day);
    const auto schedule = [this] { return agent_.Status()["schedule"]; };
    EXPECT_TRUE(schedule()["working"].asBool());
    const CommandResult applied = ApplyText(SDK::JsonUtils::JsonToString(policy));
    EXPECT_EQ(applied.exit_code, 0);
    EXPECT_NE(applied.err.find("protection never works"), std::string::npos) << applied.err;
    EXPECT_TRUE(schedule()["enabled"].asBool() && schedule()["until"].isNull());
    EXPECT_FALSE(schedule()["working"].asBool());
    EXPECT_NE(agent_.Ctl({"status"}).out.find("schedule    paused"), std::string::npos);
    const CommandResult taken_back = ApplyText(SDK::JsonUtils::JsonToString(without));
    EXPECT_NE(taken_back.err.find("until the agent restarts"), std::string::npos) << taken_back.err;
    EXPECT_FALSE(schedule()["enabled"].asBool() || schedule()["working"].asBool());
    agent_.Stop();
    ASSERT_TRUE(agent_.Start());
    EXPECT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_TRUE(schedule()["working"].asBool());
}

TEST_F(PolicyPush, PolicyDuringALongFirstBackup_InterruptsIt) {
    // Interrupts running commands sooner than the default of 5 s.
    std::ofstream(agent_.Path("conf/agent.json")) << R"({"policy_grace_ms": 500})";
    ASSERT_TRUE(agent_.Start());
    // The first backup never ends, as one of hours; rsync makes the later ones.
    const std::string begun = backup_.Path("begun");
    const std::string endless = site_.Write(
        "rsync", "#!/bin/sh\ncase \"$1\" in --version) exec /usr/bin/rsync \"$@\";; esac\n[ -e " +
                     begun + " ] && exec /usr/bin/rsync \"$@\"\n: > " + begun +
                     "\nexec tail -f /dev/null\n");
    std::string sha256;
    ASSERT_EQ(SDK::FileUtils::GetFileSha256(endless, sha256, 1L << 30), 0);
    Json::Value slow = SitePolicy();
    test::SetRsync(slow, "file://" + endless, sha256);
    ASSERT_EQ(agent_.Apply(slow), 0);
    ASSERT_TRUE(Await([&] { return std::filesystem::exists(begun); }));
    const CommandResult pushed = agent_.Ctl({"policy", "apply", "sentrel_feature", "-"},
                                            SDK::JsonUtils::JsonToString(slow), 10s);
    EXPECT_EQ(pushed.exit_code, 0) << pushed.err;
    ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
