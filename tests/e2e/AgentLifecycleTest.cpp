#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include "support/AgentProcess.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;
using test::CommandResult;
using Commands = std::vector<std::vector<std::string>>;

class AgentLifecycle : public testing::Test {
  protected:
    static bool Mentions(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    test::AgentProcess agent_;
};

TEST_F(AgentLifecycle, StopSignal_EndsTheAgentWithExitCodeZero) {
    ASSERT_TRUE(agent_.Start());
    EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(agent_.Path("run/agent.sock")));
    ASSERT_TRUE(agent_.Start());
    agent_.Signal(SIGINT);
    agent_.Signal(SIGINT);
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(AgentLifecycle, SudoThatNeverReturns_DoesNotPreventTheStop) {
    // Comes first in PATH. Writes the agent's process id, the parent of its shell.
    const test::TempDir dir;
    const std::string pid_file = dir.Path("agent");
    dir.Write("bin/sudo",
              "#!/bin/sh\nread -r pid name state parent rest </proc/$PPID/stat\n"
              "echo $parent >\"" +
                  pid_file + "\"\nexec sleep 600\n");
    ::chmod(dir.Path("bin/sudo").c_str(), 0755);
    agent_.RunThrough(
        {"/bin/sh", "-c", "mount --bind \"$0\" /usr/local/sbin && exec \"$@\"", dir.Path("bin")});
    const auto stop_when_blocked = [&] {
        const auto pid = [&] { return std::atoi(test::TempDir::Read(pid_file).c_str()); };
        EXPECT_TRUE(test::WaitFor([&] { return pid() > 0; }, 20s));
        EXPECT_TRUE(pid() > 0 && ::kill(pid(), SIGTERM) == 0);
        return std::chrono::steady_clock::now();
    };
    const auto expect_soon = [](std::chrono::steady_clock::time_point since) {
        EXPECT_LT(std::chrono::steady_clock::now() - since, test::Scaled(4s));
    };
    const test::TempDir site;
    const test::TempDir backup;
    ASSERT_TRUE(agent_.Start());
    auto applied = std::async(std::launch::async, [&] {
        return agent_.Apply(test::ProtectionPolicy({{site.Path(), backup.Path()}}));
    });
    auto signalled = stop_when_blocked();
    EXPECT_EQ(agent_.Stop(), 0);
    expect_soon(signalled);
    EXPECT_EQ(applied.get(), 0) << "the policy was not accepted";

    std::filesystem::remove(pid_file);
    auto started = std::async(std::launch::async, [&] { return agent_.RunAgent({}); });
    signalled = stop_when_blocked();
    EXPECT_EQ(started.get().exit_code, 0);
    expect_soon(signalled);
}

TEST_F(AgentLifecycle, SecondInstance_IsRefusedWithTheFirstOnesProcess) {
    ASSERT_TRUE(agent_.Start());
    for (const auto& arguments : Commands{{}, {"--daemon"}}) {
        const CommandResult second = agent_.RunAgent(arguments);
        EXPECT_EQ(second.exit_code, 2);
        EXPECT_TRUE(Mentions(second.err, std::to_string(agent_.Pid()))) << second.err;
    }
    EXPECT_EQ(agent_.Status()["pid"], agent_.Pid()) << "the first agent was disturbed";
}

TEST_F(AgentLifecycle, NoAgent_IsReportedByEveryCommand) {
    for (const auto& command : Commands{{"status"},
                                        {"alarms", "-f"},
                                        {"alarms"},
                                        {"protect", "/tmp", "--yes"},
                                        {"unprotect", "/tmp", "--yes"},
                                        {"metrics"},
                                        {"policy", "apply", "sentrel_feature", "-"}}) {
        const CommandResult result = agent_.Ctl(command, "{}");
        EXPECT_EQ(result.exit_code, command[0] == "status" ? 2 : 5) << command[0];
        EXPECT_TRUE(Mentions(result.err, "bin/morvane_agent --daemon")) << result.err;
        EXPECT_TRUE(Mentions(result.err, agent_.Path("run/agent.sock"))) << result.err;
    }
}

TEST_F(AgentLifecycle, WrongArguments_AreUsageErrors) {
    for (const auto& command : Commands{{},
                                        {"statu"},
                                        {"policy"},
                                        {"policy", "apply"},
                                        {"alarms", "--since", "-1"},
                                        {"alarms", "--until", "2x"},
                                        {"alarms", "--action", "x"},
                                        {"protect"},
                                        {"unprotect", ""},
                                        {"metrics", "x"},
                                        {"reports", "--kind", "x"}}) {
        EXPECT_EQ(agent_.Ctl(command).exit_code, 2) << testing::PrintToString(command);
    }
    EXPECT_EQ(agent_.Ctl({"--help"}).exit_code, 0);
    EXPECT_EQ(agent_.RunAgent({"--frobnicate"}).exit_code, 64);
}

TEST_F(AgentLifecycle, Daemon_ReturnsWhenItIsReady) {
    const CommandResult start = agent_.RunAgent({"--daemon"});
    ASSERT_EQ(start.exit_code, 0) << start.err;
    const pid_t daemon = agent_.Status()["pid"].asInt();
    ASSERT_GT(daemon, 1);
    EXPECT_TRUE(Mentions(start.out, std::to_string(daemon))) << start.out;
    ::kill(daemon, SIGTERM);
    EXPECT_TRUE(test::WaitFor([&] { return ::kill(daemon, 0) != 0; }, test::Scaled(30s)));
    ::kill(daemon, SIGKILL);
}

TEST_F(AgentLifecycle, StartThatFails_ReportsTheReasonInTheForegroundAndAsADaemon) {
    const test::TempDir dir;
    const std::string broken = dir.Write("broken.json", "{\"modules\": 7}");
    const std::string missing = dir.Path("missing.json");
    for (const auto& arguments : Commands{{"--config", broken},
                                          {"--config", missing},
                                          {"--config", broken, "--daemon"},
                                          {"--config", missing, "--daemon"}}) {
        const CommandResult result = agent_.RunAgent(arguments);
        EXPECT_EQ(result.exit_code, 1);
        EXPECT_TRUE(Mentions(result.err, arguments[1])) << result.err;
    }
}

TEST_F(AgentLifecycle, Check_TellsTheErrorsOfKeptPoliciesAndOfARunningAgent) {
    const std::string policy = agent_.Path("data/policies/sentrel_feature.json");
    std::filesystem::create_directories(agent_.Path("data/policies"));
    EXPECT_EQ(agent_.RunAgent({"--check"}).exit_code, 0);
    std::ofstream(policy) << R"({"enabled": true, "content": {}})";
    const CommandResult checked = agent_.RunAgent({"--check"});
    EXPECT_EQ(checked.exit_code, 1);
    EXPECT_TRUE(Mentions(checked.err, "error: sentrel_feature: /content/os_type")) << checked.err;
    std::ofstream(policy) << R"({"enabled": false})";
    EXPECT_EQ(agent_.RunAgent({"--check"}).exit_code, 0);
    ASSERT_TRUE(agent_.Start());
    EXPECT_EQ(agent_.RunAgent({"--check"}).exit_code, 2);
}

TEST_F(AgentLifecycle, Status_HasAllDocumentedMembers) {
    ASSERT_TRUE(agent_.Start());
    const Json::Value status = agent_.Status();
    EXPECT_EQ(status["pid"], agent_.Pid());
    EXPECT_EQ(status["installation_path"], agent_.Path() + "/");
    for (const char* member :
         {"agent_id", "version", "started", "modules", "tasks", "protected_paths", "backup",
          "schedule", "backup_server", "counters"}) {
        EXPECT_TRUE(status.isMember(member)) << member;
    }
    for (const char* counter :
         {"events_received", "events_delivered", "events_dropped", "overflows", "restores_done",
          "restores_failed", "alarms_sent", "alarms_merged"}) {
        EXPECT_TRUE(status["counters"][counter].isIntegral()) << counter;
    }
    for (const Json::Value& module : status["modules"]) EXPECT_EQ(module["state"], "running");
    EXPECT_FALSE(status["tasks"].empty());
    EXPECT_EQ(status["health"]["state"], "off");
    EXPECT_EQ(agent_.Ctl({"status"}).exit_code, 2);
    // The stand-in for the kernel's limit lets it be raised.
    EXPECT_TRUE(test::WaitFor(
        [&] { return agent_.Status()["filenotify"]["queue_limit"].asInt() == 1048576; },
        test::Scaled(20s)));
}

}  // namespace
