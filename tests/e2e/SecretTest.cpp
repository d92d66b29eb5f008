#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "support/AgentProcess.h"
#include "support/PseudoTerminal.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::CommandResult;
using test::PseudoTerminal;
using test::TempDir;

const std::string kPassword = " #s3cr3tw0rd\"r\\et: \xc3\xa4 ";

class Secret : public testing::Test {
  protected:
    /// With the log level "trace".
    void StartWithFullLog() {
        const std::string file = agent_.Path("conf/agent.json");
        std::string text = TempDir::Read(file);
        const std::string level = "\"information\"";
        text.replace(text.find(level), level.size(), "\"trace\"");
        std::ofstream(file) << text;
        ASSERT_TRUE(agent_.Start());
    }
    std::string Stored(const std::string& role) const {
        return TempDir::Read(agent_.Path("conf/rsync_" + role + ".secrets"));
    }
    std::vector<std::string> Command(const std::string& role) const {
        return {agent_.Path("bin/morvanectl"), "secret", "set", role};
    }
    bool Prompted(PseudoTerminal& terminal, const std::string& prompt) const {
        return test::WaitFor(
            [&] {
                return terminal.Shown().find(prompt) != std::string::npos && !terminal.Echoes();
            },
            test::Scaled(20s));
    }
    /// The installation files, except the secrets, that contain `text`.
    std::string FilesWith(const std::string& text) const {
        std::string found;
        for (const auto& entry : fs::recursive_directory_iterator(agent_.Path())) {
            if (!entry.is_regular_file() || entry.path().extension() == ".secrets") continue;
            const std::string content = TempDir::Read(entry.path());
            if (content.find(text) != std::string::npos) found += entry.path().string() + "\n";
        }
        return found;
    }

    test::AgentProcess agent_;
};

TEST_F(Secret, FirstLineOfStandardInput_IsStoredAndAppearsNowhereElse) {
    StartWithFullLog();
    CommandResult result = agent_.Ctl({"secret", "set", "server"}, kPassword + "\nmore\n");
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(Stored("server"), "morvane_agent:" + kPassword);
    result = agent_.Ctl({"secret", "set", "client"}, kPassword);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(Stored("client"), kPassword);
    EXPECT_EQ((result.out + result.err).find("s3cr3tw0rd"), std::string::npos);
    // The log must not contain a failed request either.
    agent_.Ctl({"tasklet", "sentrel_getpasswd_10002"}, "{\"passwd\":\"s3cr3tw0rd\"");
    agent_.Ctl({"tasklet", "no_such_tasklet"}, "{\"passwd\":\"s3cr3tw0rd\"}");
    EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_NE(TempDir::Read(agent_.Path("log/agent.log")).find("rsyslog write pass"),
              std::string::npos)
        << "the log has no debug records";
    EXPECT_EQ(FilesWith("s3cr3tw0rd"), "");
}

TEST_F(Secret, PasswordThatRsyncCannotUse_IsRejected) {
    ASSERT_TRUE(agent_.Start());
    ASSERT_EQ(agent_.Ctl({"secret", "set", "client"}, "old\n").exit_code, 0);
    for (const std::string& bad :
         {std::string(), std::string("\nx"), std::string("s3\0c", 4), std::string("s3cr3tw0rd\r\n"),
          std::string("s3cr3tw0rd\xff"), std::string(1024 * 1024, 's')}) {
        const CommandResult result = agent_.Ctl({"secret", "set", "client"}, bad);
        EXPECT_EQ(result.exit_code, 1) << bad.substr(0, 20);
        EXPECT_NE(result.err.find("The password"), std::string::npos) << result.err;
        EXPECT_EQ(result.err.find("s3"), std::string::npos) << result.err;
    }
    EXPECT_EQ(Stored("client"), "old");
    EXPECT_EQ(agent_.Ctl({"secret", "set", "client", "s3cr3tw0rd"}).exit_code, 2);
    EXPECT_EQ(agent_.Ctl({"secret", "set", "both"}, "x").exit_code, 2);
    fs::remove(agent_.Path("conf/rsync_client.secrets"));
    fs::create_directories(agent_.Path("conf/rsync_client.secrets/in_the_way"));
    const CommandResult failed = agent_.Ctl({"secret", "set", "client"}, "s3cr3tw0rd");
    EXPECT_EQ(failed.exit_code, 1);
    EXPECT_NE(failed.err.find("could not write"), std::string::npos) << failed.err;
    agent_.Kill();
    EXPECT_EQ(agent_.Ctl({"secret", "set", "client"}, "x").exit_code, 5);
}

TEST_F(Secret, Terminal_DoesNotEchoAndAsksTwice) {
    ASSERT_TRUE(agent_.Start());
    PseudoTerminal terminal(Command("client"));
    ASSERT_TRUE(Prompted(terminal, "Password of the backup client: ")) << terminal.Shown();
    terminal.Type("s3cr3tw0rd\n");
    ASSERT_TRUE(Prompted(terminal, "Verifying")) << terminal.Shown();
    const std::string process =
        TempDir::Read("/proc/" + std::to_string(terminal.Pid()) + "/cmdline") +
        TempDir::Read("/proc/" + std::to_string(terminal.Pid()) + "/environ");
    EXPECT_NE(process.find("secret"), std::string::npos);
    EXPECT_EQ(process.find("s3cr3tw0rd"), std::string::npos);
    terminal.Type("s3cr3tw0rd\n");
    EXPECT_EQ(terminal.WaitForEnd(test::Scaled(20s)), 0) << terminal.Shown();
    EXPECT_EQ(terminal.Shown().find("s3cr3tw0rd"), std::string::npos) << terminal.Shown();
    EXPECT_TRUE(terminal.Echoes());
    EXPECT_EQ(Stored("client"), "s3cr3tw0rd");

    PseudoTerminal again(Command("client"));
    ASSERT_TRUE(Prompted(again, "Password of the backup client: "));
    again.Type("one\n");
    ASSERT_TRUE(Prompted(again, "Verifying")) << again.Shown();
    again.Type("other\n");
    EXPECT_EQ(WEXITSTATUS(again.WaitForEnd(test::Scaled(20s))), 1);
    EXPECT_NE(again.Shown().find("not typed twice the same"), std::string::npos) << again.Shown();
    EXPECT_EQ(Stored("client"), "s3cr3tw0rd");
}

TEST_F(Secret, SignalAtThePrompt_RestoresTheTerminal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
        PseudoTerminal terminal(Command("server"));
        ASSERT_TRUE(Prompted(terminal, "Password of the backup server: "));
        ::kill(terminal.Pid(), signal);
        EXPECT_NE(terminal.WaitForEnd(test::Scaled(20s)), 0) << signal;
        EXPECT_TRUE(terminal.Echoes()) << signal;
    }
}

}  // namespace
