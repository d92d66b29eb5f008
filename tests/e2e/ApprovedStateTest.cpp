#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>

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
    /// Changes the site while the agent is away, and approves that.
    void AcceptChange(const std::function<void()>& change) {
        EXPECT_EQ(agent_.Stop(), 0);
        change();
        ASSERT_TRUE(agent_.Start());
        ASSERT_TRUE(Await([this] { return Path()["held"].asInt() > 0; })) << agent_.Status();
        const test::CommandResult accepted = agent_.Ctl({"accept", "--all"});
        ASSERT_EQ(accepted.exit_code, 0) << accepted.err;
    }
    test::CommandResult RollBack(const std::string& generation,
                                 const std::vector<std::string>& more = {"--yes"}) {
        std::vector<std::string> arguments{"baseline", "rollback", generation};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return agent_.Ctl(arguments);
    }
    /// All objects with type, mode, time and content.
    static std::map<std::string, std::string> StateOf(const std::string& root) {
        std::map<std::string, std::string> state;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            struct stat info {};
            EXPECT_EQ(::lstat(entry.path().c_str(), &info), 0);
            std::string& text = state[fs::relative(entry.path(), root)];
            text = std::to_string(info.st_mode) + " ";
            if (S_ISREG(info.st_mode)) text += test::TempDir::Read(entry.path());
            if (S_ISLNK(info.st_mode)) text += fs::read_symlink(entry.path()).string();
            if (!S_ISDIR(info.st_mode)) text += " " + std::to_string(info.st_mtim.tv_sec);
        }
        return state;
    }
    void ExpectState(const std::map<std::string, std::string>& state) {
        EXPECT_EQ(StateOf(site_.Path()), state);
        EXPECT_EQ(StateOf(backup_.Path() + site_.Path()), state);
        for (const char* side : {"--full", "--copies"}) {
            const test::CommandResult verified = agent_.Ctl({"verify", side});
            EXPECT_EQ(verified.exit_code, 0) << verified.out;
        }
    }
    /// The generations of which replaced copies are kept.
    std::set<std::string> KeptGenerations() {
        std::set<std::string> kept;
        for (const auto& rule : fs::directory_iterator(backup_.Path(".morvane-generations"))) {
            for (const auto& run : fs::directory_iterator(rule)) {
                kept.insert(run.path().stem());
            }
        }
        return kept;
    }
};

TEST_F(ApprovedSite, OlderStates_AreBroughtBackWithAllTheirObjects) {
    fs::create_symlink("index.html", site_.Path("home"));
    Write(site_.Path("old"), "the same size");
    Approve();
    const auto first = StateOf(site_.Path());
    AcceptChange([this] {
        Write(site_.Path("index.html"), "second");
        Write(site_.Path("old"), "The Same Size");
        site_.Write("new/sub/page.html", "added");
        fs::remove(site_.Path("about.html"));
        fs::remove(site_.Path("home"));
        fs::create_symlink("news.html", site_.Path("home"));
        ::chmod(site_.Path("news.html").c_str(), 0600);
    });
    const auto second = StateOf(site_.Path());
    AcceptChange([this] {
        Write(site_.Path("index.html"), "third");
        Write(site_.Path("about.html"), "another about");
        fs::remove_all(site_.Path("img"));
        Write(site_.Path("img"), "a file now");
        fs::remove_all(site_.Path("new"));
        ::chmod(site_.Path("news.html").c_str(), 0644);
    });
    const auto third = StateOf(site_.Path());
    const test::CommandResult planned = RollBack("1", {"--dry-run"});
    EXPECT_EQ(planned.exit_code, 0) << planned.err;
    ExpectState(third);
    EXPECT_EQ(RollBack("2", {site_.Path("new"), "--yes"}).exit_code, 0);
    auto mixed = third;
    for (const char* name : {"new", "new/sub", "new/sub/page.html"}) {
        mixed[name] = second.at(name);
    }
    ExpectState(mixed);
    EXPECT_EQ(RollBack("2").exit_code, 0);
    ExpectState(second);
    EXPECT_NE(Path()["baseline"]["approval"].asString().find("rolled back to generation 2 by user"),
              std::string::npos);
    // The first state is dropped by now, with what was kept of it.
    EXPECT_EQ(RollBack("1").exit_code, 1);
    EXPECT_TRUE(Await([this] { return KeptGenerations() == std::set<std::string>{"4"}; }))
        << testing::PrintToString(KeptGenerations());
    EXPECT_EQ(RollBack("3").exit_code, 0);
    ExpectState(third);
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(ApprovedSite, StateBeforeTheLast_IsBroughtBackAfterPoliciesAndWithAKeyFromElsewhere) {
    fs::create_symlink("index.html", site_.Path("home"));
    Approve();
    const auto first = StateOf(site_.Path());
    for (const char* text : {"second", "third"}) {
        Json::Value off(Json::objectValue);
        off["enabled"] = false;
        ASSERT_EQ(agent_.Apply(off), 3);
        Write(site_.Path("index.html"), text);
        fs::remove(site_.Path("about.html"));
        fs::remove_all(site_.Path("img"));
        Write(site_.Path("img"), text);
        ASSERT_EQ(agent_.Apply(SitePolicy()), 0);
        ASSERT_TRUE(Await([&] {
            return !Path()["baseline"].isNull() &&
                   test::TempDir::Read(backup_.Path() + site_.Path("img")) == text;
        }));
    }
    const std::string key = agent_.Path("elsewhere.key");
    fs::rename(agent_.Path("data/baseline/signing.key"), key);
    EXPECT_EQ(agent_.Apply(SitePolicy()), 4) << "nothing can be approved";
    EXPECT_EQ(RollBack("1").exit_code, 4);
    EXPECT_EQ(RollBack("1", {"--yes", "--key", agent_.Path("data/baseline/signing.pub")}).exit_code,
              1);
    const test::CommandResult rolled = RollBack("1", {"--yes", "--key", key});
    EXPECT_EQ(rolled.exit_code, 0) << rolled.err;
    ExpectState(first);
    EXPECT_EQ(RollBack("2").exit_code, 4) << "the key is forgotten";
    EXPECT_EQ(agent_.Stop(), 0);
}

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
