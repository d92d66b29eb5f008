#include <sdk/commands/ExecuteCmdUtils.h>

#include "support/ProtectedSite.h"

namespace {

/// An agent in a user namespace with a limit of inotify watches of its own.
class WatchShortage : public test::ProtectedSite {
  protected:
    static constexpr int kDirectories = 12;
    static constexpr int kTooFew = 8;

    WatchShortage() {
        for (int at = 0; at < kDirectories; ++at) site_.Write(Page(at), Good(Page(at)));
    }
    void SetUp() override {
        if (!IsAllowed()) GTEST_SKIP() << "user namespaces are not permitted";
    }
    static std::string Page(int at) { return "part" + std::to_string(at) + "/page.html"; }

    /// A shell script that sets its first argument as the limit and executes the other arguments.
    static std::string SetLimit() {
        return "echo \"$1\" >/proc/sys/user/max_inotify_watches && shift && exec \"$@\"";
    }
    static int Run(const std::string& program, const std::vector<std::string>& arguments) {
        std::string output;
        int exit_code = -1;
        SDK::ExecuteCmdUtils::ExecuteCmd(program, arguments, 10000, exit_code, output, 4096);
        return exit_code;
    }
    static std::vector<std::string> Limited(int limit) {
        return {"-U", "-r", "/bin/sh", "-c", SetLimit(), "sh", std::to_string(limit)};
    }
    /// True when the kernel permits namespaces with limits of their own.
    static bool IsAllowed() {
        std::vector<std::string> trial = Limited(kTooFew);
        trial.emplace_back("/bin/true");
        return Run("/usr/bin/unshare", trial) == 0;
    }
    void LimitAgent(int limit) {
        std::vector<std::string> command = Limited(limit);
        command.insert(command.begin(), "/usr/bin/unshare");
        agent_.RunThrough(command);
    }
    /// Raises the limit of the running agent.
    bool RaiseLimit() const {
        return Run("/usr/bin/nsenter", {"-U", "-t", std::to_string(agent_.Pid()), "/bin/sh", "-c",
                                        SetLimit(), "sh", "100000", "/bin/true"}) == 0;
    }
    bool AwaitState(const std::string& state) const {
        return Await([&] {
            const Json::Value status = agent_.Status();
            return status["protected_paths"][0]["state"] == state &&
                   !status["backup"]["local_pending"].asBool();
        });
    }
    void ExpectAllProtected() const {
        for (int at = 0; at < kDirectories; ++at) EXPECT_TRUE(TamperingIsUndone(Page(at))) << at;
    }
    bool IsLogged(const std::string& text) const {
        return test::TempDir::Read(agent_.Path("log/agent.log")).find(text) != std::string::npos;
    }
    std::string Relative(const std::string& path) const {
        return path.substr(site_.Path().size() + 1);
    }
};

TEST_F(WatchShortage, DirectoriesWithoutAWatch_AreReportedAndProtectedAfterTheLimitIsRaised) {
    LimitAgent(kTooFew);
    ASSERT_TRUE(agent_.Start());
    ASSERT_EQ(agent_.Apply(SitePolicy()), 0);
    ASSERT_TRUE(AwaitState("degraded")) << agent_.Status();
    const Json::Value told = agent_.Status()["filenotify"];
    EXPECT_GE(told["unwatched_directories"].asInt(), kDirectories - kTooFew);
    ASSERT_FALSE(told["unwatched_examples"].empty()) << told;
    const std::string lost = told["unwatched_examples"][0]["path"].asString();
    const std::string page = agent_.Ctl({"status"}).out;
    EXPECT_NE(page.find(" directories are not protected"), std::string::npos) << page;
    EXPECT_NE(page.find(lost), std::string::npos) << page;
    EXPECT_TRUE(Await([&] { return IsLogged("cannot watch " + site_.Path() + "/part"); }));
    EXPECT_TRUE(IsLogged("(raise fs.inotify.max_user_watches)"));
    EXPECT_TRUE(TamperingIsUndone("index.html"));

    // Without a watch there is no event for these changes.
    std::ofstream(lost + "/page.html") << "defaced meanwhile";
    site_.Write(Relative(lost) + "/shell.php", "evil");
    ASSERT_TRUE(RaiseLimit());
    ASSERT_TRUE(AwaitState("ready")) << agent_.Status();
    const std::string lost_page = Relative(lost) + "/page.html";
    EXPECT_TRUE(Await([&] {
        return test::TempDir::Read(site_.Path(lost_page)) == Good(lost_page) &&
               !std::filesystem::exists(lost + "/shell.php");
    }));
    ExpectAllProtected();
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(WatchShortage, HundredsOfExcludedDirectories_LeaveWatchesForThePages) {
    constexpr int kUploads = 500;
    for (int at = 0; at < kUploads; ++at) {
        std::filesystem::create_directories(
            site_.Path("a-uploads/" + std::to_string(at % 50) + "/" + std::to_string(at)));
    }
    constexpr int kEnoughForPages = 100;
    LimitAgent(kEnoughForPages);
    ASSERT_TRUE(agent_.Start());
    ASSERT_EQ(
        agent_.Apply(test::ProtectionPolicy({{site_.Path(), backup_.Path(), true, {"a-uploads"}}})),
        0);
    ASSERT_TRUE(AwaitState("ready")) << agent_.Status();
    ExpectAllProtected();
    EXPECT_EQ(agent_.Stop(), 0);
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitState("ready")) << agent_.Status();
    ExpectAllProtected();
    EXPECT_EQ(agent_.Status()["filenotify"]["unwatched_directories"].asInt(), 0);
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
