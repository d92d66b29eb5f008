#include <Poco/Net/ServerSocket.h>
#include <framework/ConfigManager.h>
#include <sdk/commands/ProcessUtils.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "SentrelModule.h"
#include "feature_backupserver/BackUpServerPolicy.h"
#include "feature_backupserver/BackUpServerTask.h"
#include "fixtures/FakeTasks.h"
#include "fixtures/Installation.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Engine::SentrelUtils;
using Poco::Message;

int FreePort() {
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

class BackUpServer : public ::testing::Test {
  protected:
    BackUpServer() {
        Framework::LoggerConfig config;
        config.directory = install_.dir.Path("log");
        fs::create_directories(config.directory);
        Framework::ConfigManager::GetInstance().SetLoggerConfig(config);
    }
    ~BackUpServer() override { EXPECT_TRUE(utils_->DoStopRsyncDeamon()); }

    Json::Value Document() const {
        Json::Value document(Json::objectValue);
        document["content"]["backupserver_ip"] = "127.0.0.1";
        document["content"]["backupserver_port"] = port_;
        document["content"]["backupserver_path"] = install_.dir.Path("received/here");
        return document;
    }
    bool Parse(const Json::Value& document) { return policy_.Parse(test::Text(document)); }
    int RunningPid() const {
        int pid = 0;
        return utils_->GetRsyncRunningPid(pid_file_, pid) ? pid : 0;
    }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    const int port_ = FreePort();
    const std::string conf_ = install_.Path() + "conf/morvane_rsync.conf";
    const std::string pid_file_ = install_.Path() + "bin/morvane_rsyncd.pid";
    Engine::BackUpServerPolicy& policy_ = *new Engine::BackUpServerPolicy("backupserver_feature");
};

TEST_F(BackUpServer, AcceptedPolicy_WritesTheDaemonConfiguration) {
    ASSERT_TRUE(Parse(Document()));
    const std::string root = install_.dir.Path();
    EXPECT_EQ(test::TempDir::Read(conf_),
              "\t# Distributed under the terms of the GNU General Public License v2\n"
              "\t# Minimal configuration file for rsync daemon\n"
              "\t# See rsync(1) and rsyncd.conf(5) man pages for help\n"
              "\tpid file = " +
                  root +
                  "/bin/morvane_rsyncd.pid\n"
                  "\tport = " +
                  std::to_string(port_) +
                  "\n"
                  "\taddress = 127.0.0.1\n"
                  "\tuid = root\n\tgid = root\n\tuse chroot = yes\n\tread only = no\n"
                  "\t#limit access to private LANs\n\thosts allow=0.0.0.0/0\n\thosts deny=*\n"
                  "\tmax connections = 50\n\t#This will give you a separate log file\n"
                  "\tlog file = " +
                  root +
                  "/log/morvane_rsync.log\n"
                  "\ttransfer logging = yes\n\tlog format = %t %a %m %f %b\n\ttimeout = 300\n"
                  "[morvane_agent]\n"
                  "\tpath = " +
                  root +
                  "/received/here\n"
                  "\tlist = yes\n\tignore errors\n\tauth users = morvane_agent\n"
                  "\tsecrets file = " +
                  root +
                  "/conf/rsync_server.secrets\n"
                  "\tcomment = This is morvane_agent home data\n\n");
    EXPECT_EQ(fs::status(root + "/received/here").permissions(), fs::perms(0700));
    EXPECT_EQ(install_.Debugs("backupserver path[" + root + "/received/here] not exist."), 1);
}

TEST_F(BackUpServer, RejectedPolicy_KeepsOrRemovesTheConfiguration) {
    install_.dir.Write("conf/morvane_rsync.conf", "old");
    Json::Value document = Document();
    document["content"]["backupserver_port"] = 0;
    EXPECT_FALSE(Parse(document));
    EXPECT_FALSE(policy_.Parse("{"));
    EXPECT_EQ(test::TempDir::Read(conf_), "old");
    document = Document();
    document["content"]["backupserver_ip"] = "203.0.113.7";
    EXPECT_FALSE(Parse(document));
    EXPECT_FALSE(fs::exists(conf_));
    EXPECT_EQ(install_.Errors("backupserver ip[203.0.113.7] not exist."), 1);
    document = Document();
    document["content"]["backupserver_path"] = install_.dir.Write("a_file", "x") + "/below_a_file";
    EXPECT_FALSE(Parse(document));
}

TEST_F(BackUpServer, PidFile_IsValidOnlyForALivingProcess) {
    int pid = 7;
    EXPECT_FALSE(utils_->GetRsyncRunningPid(pid_file_, pid));
    EXPECT_EQ(pid, 7);
    for (const std::string text : {"0", "-5", "abc", "4294967297", "99999999999999999999"}) {
        install_.dir.Write("bin/morvane_rsyncd.pid", text);
        EXPECT_FALSE(utils_->GetRsyncRunningPid(pid_file_, pid)) << text;
        EXPECT_TRUE(utils_->DoStopRsyncDeamon());
        EXPECT_FALSE(fs::exists(pid_file_));
    }
    EXPECT_EQ(install_.Traces("remove file: " + pid_file_), 5);
    install_.dir.Write("bin/morvane_rsyncd.pid", std::to_string(::getpid()) + "\n");
    EXPECT_TRUE(utils_->GetRsyncRunningPid(pid_file_, pid));
    EXPECT_EQ(pid, ::getpid());
    fs::remove(pid_file_);
}

TEST_F(BackUpServer, PidFileOfAnotherProcess_IsRemovedAtTheStartAndUsedLater) {
    const pid_t other = ::fork();
    if (other == 0) {
        ::execl("/bin/sleep", (install_.Path() + "bin/rsync").c_str(), "60", nullptr);
        ::_exit(1);
    }
    const auto is_alive = [other] {
        return SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(other));
    };
    install_.dir.Write("bin/morvane_rsyncd.pid", std::to_string(other));
    EXPECT_FALSE(Engine::RsyncDaemon::FindOwn(install_.Path()));
    {
        Engine::SentrelModule module;
        test::RunningEngine running(install_.log);
        EXPECT_TRUE(module.Init());
        module.UnInit();
    }
    EXPECT_FALSE(fs::exists(pid_file_));
    EXPECT_TRUE(is_alive());
    EXPECT_EQ(install_.log.Count(Message::PRIO_WARNING,
                                 pid_file_ + " is removed: it names process " +
                                     std::to_string(other) + ", which is no rsync daemon of ours"),
              1);
    utils_->install_path = install_.Path();
    install_.dir.Write("bin/morvane_rsyncd.pid", std::to_string(other));
    std::thread reaper([other] { ::waitpid(other, nullptr, 0); });
    EXPECT_TRUE(utils_->DoStopRsyncDeamon());
    reaper.join();
    EXPECT_FALSE(is_alive());
    EXPECT_FALSE(fs::exists(pid_file_));
}

TEST_F(BackUpServer, Task_KeepsItsDaemonAndRestartsADeadOne) {
    install_.UseRealRsync();
    ASSERT_TRUE(Parse(Document()));
    auto& status = install_.state.backup_server;
    status.SetOn("127.0.0.1", port_, utils_->backupserver_path);
    const auto current = [&] {
        return status.ToJson(Engine::RsyncDaemon::FindOwn(install_.Path()));
    };
    EXPECT_EQ(test::Text(current()["pid"]) + test::Text(current()["last_start"]), "nullnull");
    Engine::BackUpServerTask task(install_.state);
    EXPECT_EQ(task.Run(), 0);
    EXPECT_EQ(install_.Debugs("pid not running: 0"), 1);
    ASSERT_TRUE(test::WaitFor([this] { return RunningPid() != 0; }, 10s));
    const int first = RunningPid();
    Engine::RsyncDaemon::DropForeignPidFile(install_.Path());
    task.Run();
    EXPECT_EQ(RunningPid(), first);
    EXPECT_EQ(current()["pid"], first);
    EXPECT_EQ(current()["restarts"].asInt(), 0);
    EXPECT_GT(current()["last_start"].asInt64(), 0);
    ASSERT_EQ(::kill(first, SIGKILL), 0);
    ASSERT_TRUE(test::WaitFor([this] { return RunningPid() == 0; }, 10s));
    task.Run();
    ASSERT_TRUE(test::WaitFor([this] { return RunningPid() != 0; }, 10s));
    EXPECT_NE(RunningPid(), first);
    EXPECT_TRUE(current()["running"].asBool() && current()["restarts"].asInt() == 1);
    EXPECT_TRUE(task.UnInit());
    EXPECT_EQ(RunningPid(), 0);
    EXPECT_FALSE(fs::exists(pid_file_));
}

TEST_F(BackUpServer, DaemonLog_IsRotatedAtItsLimit) {
    install_.UseRecordingRsync();
    const std::string log = install_.dir.Write("log/morvane_rsync.log", "new");
    install_.dir.Write("log/morvane_rsync.log.0", "older");
    Engine::BackUpServerTask task(install_.state);
    fs::resize_file(log, 10485759);
    task.Run();
    EXPECT_EQ(test::TempDir::Read(log + ".0"), "older");
    fs::resize_file(log, 10485760);
    task.Run();
    EXPECT_EQ(fs::file_size(log + ".0"), 10485760U);
    EXPECT_FALSE(fs::exists(log));
}

}  // namespace
