#include <filesystem>
#include <fstream>

#include "support/ProtectedSite.h"

namespace {

namespace fs = std::filesystem;

/// A site whose attacker can also end the agent.
class ApprovedSite : public test::ProtectedSite {
  protected:
    void Approve() {
        Protect();
        ASSERT_TRUE(Await([this] { return !Path()["baseline"].isNull(); })) << agent_.Status();
    }
    Json::Value Path() { return agent_.Status()["protected_paths"][0]; }
    void Write(const std::string& file, const std::string& content) {
        std::ofstream(file) << content;
    }
};

TEST_F(ApprovedSite, AgentThatIsKilledAgainAndAgain_ApprovesNothing) {
    Approve();
    const std::string good = test::TempDir::Read(site_.Path("index.html"));
    const std::string copy = backup_.Path() + site_.Path("index.html");
    for (int round = 0; round < 4; ++round) {
        agent_.Kill();
        Write(site_.Path("index.html"), "defaced " + std::to_string(round));
        Write(site_.Path("shell" + std::to_string(round) + ".php"), "evil");
        ASSERT_TRUE(agent_.Start());
    }
    ASSERT_TRUE(Await([this] { return Path()["held"].asInt() == 5; })) << agent_.Status();
    EXPECT_EQ(test::TempDir::Read(copy), good);
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", site_.Path("index.html")); }));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("add", site_.Path("shell3.php")); }));
    EXPECT_EQ(agent_.Ctl({"verify"}).exit_code, 2);
    const test::CommandResult restored = agent_.Ctl({"restore", "--all"});
    EXPECT_EQ(restored.exit_code, 0) << restored.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), good);
    const test::CommandResult verified = agent_.Ctl({"verify", "--full"});
    EXPECT_EQ(verified.exit_code, 0) << verified.out;
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(ApprovedSite, CopyThatWasAlteredWhileTheAgentWasAway_IsNotPutBack) {
    Approve();
    EXPECT_EQ(agent_.Stop(), 0);
    Write(backup_.Path() + site_.Path("index.html"), "altered");
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    Write(site_.Path("index.html"), "defaced");
    EXPECT_TRUE(Await(
        [&] { return agent_.HasAlarm("modify", backup_.Path() + site_.Path("index.html")); }));
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "defaced");
    // The operator approves a clean page, and it is protected again.
    const std::string clean = "a clean page";
    Write(site_.Path("index.html"), clean);
    const test::CommandResult accepted = agent_.Ctl({"accept", site_.Path("index.html")});
    EXPECT_EQ(accepted.exit_code, 0) << accepted.err;
    Write(site_.Path("index.html"), "defaced");
    EXPECT_TRUE(Await([&] { return test::TempDir::Read(site_.Path("index.html")) == clean; }));
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
