// What an administrator does who never saw the product.
#include <signal.h>

#include <filesystem>

#include "support/ProtectedSite.h"
#include "support/PseudoTerminal.h"

namespace {

using test::CommandResult;
using test::TempDir;

bool Mentions(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Administrator : public test::ProtectedSite {
  protected:
    CommandResult Protect(std::vector<std::string> options) const {
        options.insert(options.begin(),
                       {"protect", site_.Path(), "--backup", backup_.Path("copies")});
        return agent_.Ctl(options);
    }
    std::string Headline() const {
        const std::string page = agent_.Ctl({"status"}).out;
        return page.substr(0, page.find('\n'));
    }
};

TEST_F(Administrator, ProtectDefaceLookAndUnprotect) {
    ASSERT_TRUE(agent_.Start());
    EXPECT_TRUE(Mentions(Headline(), "OFF: no policy switches the protection on"));
    const CommandResult protect = Protect({"--exclude", "up", "--yes"});
    ASSERT_EQ(protect.exit_code, 0) << protect.out << protect.err;
    EXPECT_TRUE(Mentions(protect.out, "is watched and copied (4 files")) << protect.out;
    EXPECT_TRUE(std::filesystem::exists(backup_.Path("copies") + site_.Path("index.html")));
    const CommandResult status = agent_.Ctl({"status"});
    EXPECT_EQ(status.exit_code, 0) << status.out;
    EXPECT_EQ(status.out.rfind("Protected: 1 path. ", 0), 0U) << status.out;

    EXPECT_TRUE(TamperingIsUndone("index.html"));
    site_.Write("upload.php", "evil");
    EXPECT_TRUE(Await([&] { return !std::filesystem::exists(site_.Path("upload.php")); }));
    site_.Write("up/picture.png", "left alone");
    EXPECT_TRUE(Await([&] { return Mentions(Headline(), "Last change undone"); }));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("add", site_.Path("upload.php")); }));
    EXPECT_EQ(TempDir::Read(site_.Path("up/picture.png")), "left alone");

    const CommandResult alarms = agent_.Ctl({"alarms", "--since", "1h"});
    EXPECT_TRUE(Mentions(alarms.out, " 2 changes  " + site_.Path() + "/  1 add, 1 modify; "))
        << alarms.out;
    EXPECT_TRUE(Mentions(agent_.Ctl({"alarms", "--action", "add", "-n", "1"}).out,
                         "add        " + site_.Path("upload.php") + "  removed in "));
    EXPECT_EQ(agent_.Ctl({"alarms", "--path", backup_.Path()}).out, "");
    const CommandResult metrics = agent_.Ctl({"metrics"});
    EXPECT_TRUE(Mentions(metrics.out, "\nsentrel_undone_total{how=\"removed\"} 1\n"))
        << metrics.out;

    const CommandResult unprotect = agent_.Ctl({"unprotect", site_.Path() + "/", "--yes"});
    EXPECT_EQ(unprotect.exit_code, 0) << unprotect.err;
    EXPECT_TRUE(Mentions(unprotect.out, backup_.Path("copies") + site_.Path())) << unprotect.out;
    EXPECT_EQ(agent_.Ctl({"status"}).exit_code, 2);
    EXPECT_EQ(agent_.Ctl({"unprotect", site_.Path(), "--yes"}).exit_code, 4);
}

TEST_F(Administrator, WithoutAYes_NothingIsChanged) {
    ASSERT_TRUE(agent_.Start());
    EXPECT_EQ(Protect({}).exit_code, 2);
    EXPECT_EQ(Protect({"--dry-run"}).exit_code, 0);
    test::PseudoTerminal terminal({agent_.Path("bin/morvanectl"), "protect", site_.Path(),
                                   "--backup", backup_.Path("copies")});
    EXPECT_TRUE(Await([&] { return Mentions(terminal.Shown(), "[y/N]"); })) << terminal.Shown();
    terminal.Type("n\n");
    const int ended = terminal.WaitForEnd(test::Scaled(kDeadline));
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == 1) << terminal.Shown();
    EXPECT_FALSE(std::filesystem::exists(backup_.Path("copies")));
    EXPECT_EQ(agent_.Ctl({"policy", "show", "sentrel_feature"}).exit_code, 1);
}

TEST_F(Administrator, UndecidedChanges_AreNotApprovedByProtectingAnotherPath) {
    Protect({});
    ProtectedSite::Protect();
    agent_.Kill();
    site_.Write("index.html", "changed while the agent was away");
    ASSERT_TRUE(agent_.Start());
    EXPECT_TRUE(Await([&] { return Mentions(Headline(), "DEGRADED: " + site_.Path()); }));
    const TempDir other;
    const CommandResult refused =
        agent_.Ctl({"protect", other.Path(), "--backup", backup_.Path("other"), "--yes"});
    EXPECT_EQ(refused.exit_code, 4);
    EXPECT_TRUE(Mentions(refused.err, "1 change waits for a decision")) << refused.err;
    EXPECT_EQ(agent_.Ctl({"status"}).exit_code, 1);
}

TEST_F(Administrator, CtrlCWhileItWaits_LeavesTheProtectionOn) {
    for (int at = 0; at < 3000; ++at) site_.Write("many/page" + std::to_string(at), "page");
    ASSERT_TRUE(agent_.Start());
    test::PseudoTerminal terminal({agent_.Path("bin/morvanectl"), "protect", site_.Path(),
                                   "--backup", backup_.Path("copies"), "--yes"});
    EXPECT_TRUE(Await([&] { return Mentions(terminal.Shown(), "makes the first copy"); }));
    terminal.Type("\x03");
    const int ended = terminal.WaitForEnd(test::Scaled(kDeadline));
    const bool is_told = Mentions(terminal.Shown(), "goes on with the first copy");
    EXPECT_TRUE(WIFEXITED(ended) && WEXITSTATUS(ended) == (is_told ? 130 : 0)) << terminal.Shown();
    EXPECT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_TRUE(TamperingIsUndone("news.html"));
}

}  // namespace
