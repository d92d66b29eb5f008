#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <random>
#include <thread>

#include "sdk/commands/CommandLine.h"
#include "sdk/commands/ExecuteCmdUtils.h"
#include "sdk/commands/ProcessUtils.h"
#include "sdk/commands/RunningCommand.h"
#include "sdk/files/PathUtils.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/CommandLimit.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;
using SDK::ExecuteCmdUtils;
using Words = std::vector<std::string>;

constexpr std::size_t kMuch = 65536;
constexpr int kLongMs = 60000;

/// Runs a shell script with a timeout.
int RunScript(const std::string& script, int timeout_ms, std::string& output) {
    int exit_code = 0;
    return ExecuteCmdUtils::ExecuteCmd("/bin/sh", {"-c", script}, timeout_ms, exit_code, output,
                                       kMuch);
}

unsigned int ReadPid(const std::string& file) {
    return static_cast<unsigned int>(std::strtoul(test::TempDir::Read(file).c_str(), nullptr, 10));
}

bool Ends(unsigned int pid) {
    return pid != 0 &&
           test::WaitFor([pid] { return !SDK::ProcessUtils::IsProcessAlive(pid); }, 10s);
}

TEST(CommandLine, OnlyPlainWords_NeedNoShell) {
    EXPECT_EQ(SDK::SplitPlainCommand("  /b --exclude \"a b;c\"\t\"\" --x=\"a  b\"c u@h::m/ \xFF "),
              (Words{"/b", "--exclude", "a b;c", "", "--x=a  bc", "u@h::m/", "\xFF"}));
    for (const char* line : {"",         "  ",     "exit 3",    "ls",         "A=/b /c",
                             "/b $HOME", "/b `c`", "/b \"$x\"", "/b \"`c`\"", "/b \"a\\\\b\"",
                             "/b a\\ b", "/b 'c'", "/b *.c",    "/b a?",      "/b [a]",
                             "/b ~",     "/b #c",  "/b;c",      "/b&",        "/b|/c",
                             "/b>c",     "/b<c",   "/b (c)",    "/b {c}",     "/b !c",
                             "/b\n/c",   "/b ^c",  "/b \"open", "/b c\"",     "/b\rc"}) {
        EXPECT_TRUE(SDK::SplitPlainCommand(line).empty()) << line;
    }
}

TEST(CommandLine, RandomLines_AreSplitAsTheShellDoes) {
    static const std::string kLetters =
        "aaaab/=:.,@%+-_\xC3    \t\"\"\"\"'$`*?[]~#;&|<>(){}!^\\\n0";
    std::mt19937 random(20260);  // NOLINT(cert-msc51-cpp): to be repeated
    int plain = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string line = "/usr/bin/printf \"%s|\" ";
        for (auto left = random() % 12; left > 0; --left)
            line += kLetters[random() % kLetters.size()];
        const Words words = SDK::SplitPlainCommand(line);
        if (words.empty()) continue;
        ++plain;
        std::string expected = words.size() == 2 ? "|" : "";
        for (std::size_t at = 2; at < words.size(); ++at) expected += words[at] + "|";
        std::string output;
        EXPECT_EQ(RunScript(line, kLongMs, output), 0) << line;
        EXPECT_EQ(output, expected) << line;
    }
    EXPECT_GT(plain, 300);
}

TEST(ExecuteCmd, OneString_GivesTheResultOfTheShell) {
    std::string output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/bin/echo a \"b  c\"", output, kMuch), 0);
    EXPECT_EQ(output, "a b  c\n");
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("echo one; echo two >&2; exit 7", output, kMuch), 7);
    EXPECT_EQ(output, "one\ntwo\n");
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("head -c 3000000 /dev/zero && echo end", output, 4), 0);
    EXPECT_EQ(output.size(), 4U);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/no/such/program", output, kMuch), 127);
    EXPECT_NE(output.find("not found"), std::string::npos);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/etc", output, kMuch), 126);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("kill -9 $$", output, kMuch),
              ExecuteCmdUtils::kKilledBySignal);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd(std::string("/bin/echo a\0b", 13), output, kMuch),
              ExecuteCmdUtils::kStartFailed);
}

TEST(ExecuteCmd, TimeLimitOfTheThread_CountsWhereACommandHasNone) {
    std::string output;
    const SDK::CommandTimeLimit limit(300ms);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("echo begun && sleep 600", output, kMuch),
              ExecuteCmdUtils::kTimedOut);
    EXPECT_EQ(output, "begun\n");
    int exit_code = 0;
    EXPECT_EQ(SDK::RunningCommand({"/bin/sleep", "600"}, SDK::RunningCommand::kNoLimit)
                  .Wait(exit_code, output, kMuch),
              ExecuteCmdUtils::kTimedOut);
    EXPECT_EQ(exit_code, -1);
    EXPECT_EQ(RunScript("sleep 0.5", kLongMs, output), 0);
    const SDK::CommandTimeLimit none(0ms);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("sleep 0.5", output, kMuch), 0);
}

TEST(ExecuteCmd, LimitsOfACommand_EndWhatTakesMore) {
    std::string output;
    const auto run = [&](const Words& words, const SDK::CommandLimits& limits) {
        int exit_code = -1;
        const int result =
            SDK::RunningCommand(words, kLongMs, limits).Wait(exit_code, output, kMuch);
        return result == 0 ? exit_code : result;
    };
    const Words greedy{"/bin/dd", "if=/dev/zero", "of=/dev/null", "bs=300M", "count=1"};
    EXPECT_EQ(run(greedy, {}), 0) << output;
    SDK::CommandLimits memory;
    memory.address_space_bytes = 256ULL * 1024 * 1024;
    for (int round = 0; round < 20; ++round) EXPECT_NE(run(greedy, memory), 0);
    EXPECT_EQ(run({"/bin/echo", "modest"}, memory), 0);
    EXPECT_EQ(output, "modest\n");
    SDK::CommandLimits time;
    time.cpu_seconds = 1;
    EXPECT_EQ(run({"/bin/sh", "-c", "while :; do :; done"}, time),
              ExecuteCmdUtils::kKilledBySignal);
}

TEST(ExecuteCmd, Interruption_EndsThisAndLaterCommandsUntilReset) {
    const test::TempDir dir;
    const std::string pid_file = dir.Path("pid");
    SDK::CommandInterrupter interrupter;
    const SDK::CommandInterrupter::Scope scope(interrupter);
    std::thread other([&] {
        EXPECT_TRUE(test::WaitFor([&] { return ReadPid(pid_file) != 0; }, 10s));
        interrupter.Interrupt();
    });
    std::string output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("echo $$ > " + pid_file + "; exec sleep 600", output, 9),
              ExecuteCmdUtils::kInterrupted);
    other.join();
    EXPECT_TRUE(Ends(ReadPid(pid_file)));
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/bin/echo a", output, 9), ExecuteCmdUtils::kInterrupted);
    interrupter.Reset();
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/bin/echo a", output, 9), 0);
}

TEST(ExecuteCmd, CommandThatDoesNothing_IsAskedToEndThenKilledWithItsGroup) {
    const test::TempDir dir;
    const std::string pid_file = dir.Path("pid");
    const SDK::CommandIdleLimit limit(200ms);
    std::string output;
    EXPECT_EQ(RunScript("trap 'echo asked; exit 0' TERM; sleep 600 & wait", kLongMs, output),
              ExecuteCmdUtils::kTimedOut);
    EXPECT_EQ(output, "asked\n");
    EXPECT_EQ(
        RunScript("trap '' TERM; sleep 600 & echo $! > " + pid_file + "; wait", kLongMs, output),
        ExecuteCmdUtils::kTimedOut);
    EXPECT_TRUE(Ends(ReadPid(pid_file)));
}

TEST(ExecuteCmd, CommandThatDoesLittle_GoesOn) {
    const SDK::CommandIdleLimit limit(500ms);
    std::string output;
    EXPECT_EQ(RunScript("for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16; do sleep 0.1; done & "
                        "wait; echo done",
                        kLongMs, output),
              0);
    EXPECT_EQ(output, "done\n");
}

TEST(ExecuteCmd, DaemonLeftBehind_DoesNotHoldTheCall) {
    std::string output;
    // It even keeps the output pipe open.
    EXPECT_EQ(RunScript("sleep 600 & echo $!", kLongMs, output), 0);
    const auto daemon = static_cast<pid_t>(std::strtol(output.c_str(), nullptr, 10));
    ASSERT_GT(daemon, 0);
    EXPECT_TRUE(SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(daemon)));
    EXPECT_EQ(::kill(daemon, SIGKILL), 0);
}

TEST(ExecuteCmd, Environment_IsBuiltAndNotInherited) {
    ::setenv("SECRET", "x", 1);
    SDK::PathUtils::SetInstallationPath("/opt/agent");
    std::string output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/usr/bin/env", output, kMuch), 0);
    EXPECT_EQ(output,
              "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n"
              "HOME=/opt/agent/conf/home\n");
}

TEST(ExecuteCmd, VariablesOfAProgram_ReachNoOther) {
    const auto run = [](const std::string& line) {
        std::string output;
        EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd(line, output, kMuch), 0) << line;
        return output;
    };
    ExecuteCmdUtils::SetProgramEnvironment("/usr/bin/env", {"NAP=/a,b", "ODD=$x", "HOME=/h"});
    const std::string plain = run("/usr/bin/env");
    EXPECT_NE(plain.find("LC_ALL=C\nNAP=/a,b\nODD=$x\nHOME=/h\n"), std::string::npos) << plain;
    const std::string shell = run(" /usr/bin/env; echo =$NAP=; /bin/sh -c 'echo $NAP'");
    EXPECT_NE(shell.find("NAP=/a,b\n"), std::string::npos) << shell;
    EXPECT_EQ(shell.find("ODD"), std::string::npos) << shell;
    EXPECT_NE(shell.find("==\n\n"), std::string::npos) << shell;
    for (const char* other : {"/bin/sh -c env", "echo a; /usr/bin/env", "/usr/bin/../bin/env"}) {
        EXPECT_EQ(run(other).find("NAP"), std::string::npos) << other;
    }
    ExecuteCmdUtils::SetProgramEnvironment("/usr/bin/env", {});
    EXPECT_EQ(run("/usr/bin/env").find("NAP"), std::string::npos);
}

TEST(ExecuteCmd, Command_GetsNoDescriptorsSignalsGroupOrSessionOfOurs) {
    const int leaked = ::open("/dev/null", O_RDONLY);  // deliberately not close-on-exec
    ASSERT_GE(leaked, 0);
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigfillset(&blocked);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    std::string output;
    // The shell may open descriptors for the script: check those of a program.
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/bin/ls -l /proc/self/fd", output, kMuch), 0);
    EXPECT_NE(output.find("0 -> /dev/null"), std::string::npos);
    EXPECT_NE(output.find(" 3 -> /proc/"), std::string::npos) << output;  // of ls itself
    EXPECT_EQ(output.find(" 4 -> "), std::string::npos) << output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd("/bin/cat /proc/self/status", output, kMuch), 0);
    EXPECT_NE(output.find("SigBlk:\t0000000000000000"), std::string::npos) << output;
    const std::string ignored = output.substr(output.find("SigIgn:\t") + 8, 16);
    EXPECT_EQ(std::strtoull(ignored.c_str(), nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U) << output;
    ::close(leaked);
    // Process, group, session, terminal: its own session without a terminal.
    EXPECT_EQ(RunScript("read -r pid name state parent group session tty rest </proc/$$/stat; "
                        "[ $group = $$ ] && [ $session = $$ ] && echo $tty",
                        kLongMs, output),
              0);
    EXPECT_EQ(output, "0\n");
}

}  // namespace
