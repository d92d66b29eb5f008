// The real agent with the real sentry: alarms name who changed a page.
#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "support/ProtectedSite.h"

namespace {

class WhoDidIt : public test::ProtectedSite {
  protected:
    void SetUp() override {
        std::ofstream(agent_.Path("conf/agent.json")) << R"({"sentry": {"enabled": true}})";
        Protect();
        const auto is_watched = [&] { return Who()["directories"].asInt() > 1; };
        const auto why = [&] { return Who()["why"].asString(); };
        ASSERT_TRUE(Await([&] { return is_watched() || !why().empty(); }));
        if (!is_watched()) GTEST_SKIP() << "the kernel refuses: " << why();
    }
    Json::Value Who() const { return agent_.Status()["sentry"]["who"]; }

    void Run(const std::string& command) const {
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    /// Of the alarm of that page.
    Json::Value AuthorOf(const std::string& page) const {
        Json::Value who;
        EXPECT_TRUE(Await([&] {
            for (const Json::Value& report : agent_.JsonLines({"alarms", "--json"})) {
                const std::string path = report["alarm"]["file_info"][0]["file_path"].asString();
                if (path == site_.Path(page)) who = report["who"];
            }
            return !who.isNull();
        }));
        return who;
    }
};

TEST_F(WhoDidIt, ChangedPage_HasItsAuthorInTheAlarm) {
    Run("echo defaced | tee " + site_.Path("about.html") + " > /dev/null");
    const Json::Value who = AuthorOf("about.html");
    EXPECT_EQ(who["exe"], std::filesystem::canonical("/bin/tee").string());
    EXPECT_EQ(who["cmdline"], "tee " + site_.Path("about.html"));
    EXPECT_EQ(who["uid"].asUInt(), ::geteuid());
    EXPECT_EQ(who["certainty"], Who()["process_events"].asBool() ? "exact" : "likely");
    EXPECT_TRUE(
        Await([&] { return test::TempDir::Read(site_.Path("about.html")) == Good("about.html"); }));
    const std::string line = agent_.Ctl({"alarms", "--all"}).out;
    EXPECT_NE(line.find("by tee, user 0, process "), std::string::npos) << line;
}

TEST_F(WhoDidIt, SentryThatDies_StopsNoRestoreAndComesBack) {
    ASSERT_TRUE(TamperingIsUndone("index.html"));
    const pid_t guard = agent_.Status()["sentry"]["process"].asInt();
    ASSERT_GT(guard, 0);
    ::kill(guard, SIGKILL);
    EXPECT_TRUE(TamperingIsUndone("news.html"));
    EXPECT_TRUE(Await([&] {
        const Json::Value sentry = agent_.Status()["sentry"];
        return sentry["process"].asInt() != guard && sentry["who"]["directories"].asInt() > 1;
    }));
    Run("rm " + site_.Path("img/logo.svg"));
    EXPECT_EQ(AuthorOf("img/logo.svg")["exe"], std::filesystem::canonical("/bin/rm").string());
}

}  // namespace
