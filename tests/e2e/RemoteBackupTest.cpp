#include "support/ProtectedSite.h"
#include "support/TwoHosts.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::TempDir;
using test::TwoHosts;

/// Two agents on two hosts: one protects a site and pushes its backup copies to the other, the
/// backup server.
class RemoteBackup : public test::ProtectedSite {
  protected:
    static constexpr int kPort = 8730;
    static constexpr char kPassword[] = "correct horse";

    void SetUp() override {
        std::string reason;
        if (hosts_.AreNotAllowed(reason)) GTEST_SKIP() << reason;
        ASSERT_TRUE(hosts_.AreUp());
        server_.RunIn(hosts_.server);
        server_.RunThrough({});  // under systemd its daemon has a unit with more capabilities
        agent_.RunIn(hosts_.client);
        // A short period retries failed pushes sooner.
        for (const test::AgentProcess* agent : {&server_, &agent_}) {
            std::ofstream(agent->Path("conf/agent.json")) << R"({"task_period_ms": 500})";
        }
    }

    /// The processes in the hosts must end before the hosts.
    void TearDown() override {
        server_.Kill();
        agent_.Kill();
    }

    static int SetPassword(const test::AgentProcess& agent, const std::string& role,
                           const std::string& password) {
        return agent.Ctl({"secret", "set", role}, password + "\n").exit_code;
    }

    void StartServer() {
        ASSERT_TRUE(server_.Start());
        ASSERT_EQ(SetPassword(server_, "server", kPassword), 0);
        ASSERT_EQ(server_.Apply(test::BackupServerPolicy(TwoHosts::kServerAddress, kPort,
                                                         received_.Path("here")),
                                "backupserver_feature"),
                  0);
        ASSERT_TRUE(Await([&] { return DaemonRuns(); }));
    }

    int PushPolicy() const {
        Json::Value policy = SitePolicy();
        policy["content"]["backup_type"] = 2;
        policy["content"]["backup_addr"] = TwoHosts::kServerAddress;
        policy["content"]["backup_port"] = kPort;
        return agent_.Apply(policy);
    }

    /// Protects the site of the client host. The push may fail.
    void StartClient(const std::string& password = kPassword) {
        ASSERT_TRUE(agent_.Start());
        ASSERT_EQ(SetPassword(agent_, "client", password), 0);
        ASSERT_EQ(PushPolicy(), 0);
        ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    }

    std::string PidFile() const { return server_.Path("bin/morvane_rsyncd.pid"); }
    /// The process id in the server's namespace; 0: none.
    int DaemonPid() const { return std::atoi(TempDir::Read(PidFile()).c_str()); }
    /// The daemon has its pid file and accepts connections.
    bool DaemonRuns() const {
        return IsAlive(DaemonPid()) &&
               hosts_.server.Run("rsync --port " + std::to_string(kPort) + " " +
                                 TwoHosts::kServerAddress + ":: >/dev/null 2>&1") == 0;
    }
    bool IsAlive(int pid) const {
        return pid > 1 && hosts_.server.Run("kill -0 " + std::to_string(pid) + " 2>&-") == 0;
    }

    bool IsPending() const { return agent_.Status()["backup"]["remote_pending"].asBool(); }
    std::string LastFailure() const {
        return agent_.Status()["protected_paths"][0]["last_failure"].asString();
    }

    /// Failed pushes: the copy stays pending, the status has the reason `fault`, the log names the
    /// path, and the site stays protected.
    void ExpectFailure(const std::string& fault) const {
        EXPECT_TRUE(Await([&] { return LastFailure().find(fault) != std::string::npos; }))
            << LastFailure();
        EXPECT_EQ(LastFailure().find("remote backup: "), 0U) << LastFailure();
        EXPECT_TRUE(IsPending());
        const std::string record =
            "Backup (" + backup_.Path() + site_.Path() + "/) to remote faild.";
        EXPECT_TRUE(Await([&] {
            return TempDir::Read(agent_.Path("log/agent.log")).find(record) != std::string::npos;
        }));
        EXPECT_TRUE(TamperingIsUndone("news.html"));
    }

    /// The pushed copy of `name`: its full path below the agent's id.
    std::string Received(const std::string& name) const {
        return received_.Path("here/") + agent_.Status()["agent_id"].asString() + backup_.Path() +
               site_.Path(name);
    }

    /// Waits until a retry has pushed the whole site.
    void ExpectCaughtUp() const {
        EXPECT_TRUE(Await([&] { return !IsPending(); })) << LastFailure();
        EXPECT_GT(agent_.Status()["protected_paths"][0]["last_remote_backup"].asInt64(), 0);
        for (const char* name : {"index.html", "about.html", "news.html", "img/logo.svg"}) {
            EXPECT_EQ(TempDir::Read(hosts_.server.PathFromOutside(Received(name))), Good(name))
                << name;
        }
    }

    TempDir received_;
    test::AgentProcess server_;
    TwoHosts hosts_;
};

TEST_F(RemoteBackup, Copy_ArrivesBelowTheAgentId) {
    StartServer();
    StartClient();
    ExpectCaughtUp();
    // The next policy pushes an update of the site.
    Json::Value off = SitePolicy();
    off["enabled"] = false;
    EXPECT_EQ(agent_.Apply(off), 3);
    site_.Write("update.html", Good("update.html"));
    ASSERT_EQ(PushPolicy(), 0);
    ExpectCaughtUp();
    EXPECT_EQ(TempDir::Read(Received("update.html")), Good("update.html"));
    // What an operator approves is pushed, too.
    EXPECT_EQ(agent_.Ctl({"pause", site_.Path()}).exit_code, 0);
    site_.Write("accepted.html", Good("accepted.html"));
    EXPECT_EQ(agent_.Ctl({"resume", site_.Path(), "--accept"}).exit_code, 0);
    EXPECT_TRUE(Await([&] {
        return TempDir::Read(Received("accepted.html")) == Good("accepted.html");
    })) << LastFailure();
    // Lost copies come back from the server, and changes are undone from them.
    const std::string copies = backup_.Path() + site_.Path();
    fs::remove_all(copies);
    EXPECT_EQ(hosts_.client.Run(agent_.Path("bin/morvanectl") +
                                " restore --all --from-server --yes >/dev/null"),
              0);
    EXPECT_EQ(TempDir::Read(copies + "/accepted.html"), Good("accepted.html"));
    EXPECT_TRUE(TamperingIsUndone("news.html"));
    const int daemon = DaemonPid();
    EXPECT_EQ(server_.Stop(), 0);
    EXPECT_FALSE(IsAlive(daemon));
    EXPECT_FALSE(fs::exists(PidFile()));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(RemoteBackup, WrongPassword_IsReportedAndTheRightOneIsUsedAtOnce) {
    StartServer();
    StartClient("wrong");
    ExpectFailure("auth failed");
    EXPECT_FALSE(fs::exists(Received("")));
    EXPECT_EQ(SetPassword(agent_, "client", kPassword), 0);
    ExpectCaughtUp();
}

TEST_F(RemoteBackup, StoppedServer_IsReportedAndUsedWhenItIsBack) {
    StartServer();
    ASSERT_EQ(server_.Stop(), 0);
    StartClient();
    ExpectFailure("Connection refused");
    ASSERT_TRUE(server_.Start());
    ExpectCaughtUp();
    ASSERT_TRUE(hosts_.SetLinkUp(false));
    ASSERT_EQ(PushPolicy(), 0);
    ExpectFailure("No route to host");
    ASSERT_TRUE(hosts_.SetLinkUp(true));
    ExpectCaughtUp();
}

TEST_F(RemoteBackup, ServerThatDoesNotAnswer_TimesOutAndIsUsedWhenItAnswers) {
    for (const char* home :
         {"conf/home/.popt", "conf/home/sha1/.popt", "conf/home/sha1-acls/.popt"}) {
        const std::string options = agent_.Path(home);
        std::string text = TempDir::Read(options);
        const std::string minutes = "--timeout=300";
        ASSERT_NE(text.find(minutes), std::string::npos);
        std::ofstream(options) << text.replace(text.find(minutes), minutes.size(), "--timeout=1");
    }
    StartServer();
    ASSERT_EQ(hosts_.server.Run("kill -STOP " + std::to_string(DaemonPid())), 0);
    StartClient();
    ExpectFailure("timeout");
    ASSERT_EQ(hosts_.server.Run("kill -CONT " + std::to_string(DaemonPid())), 0);
    ExpectCaughtUp();
}

TEST_F(RemoteBackup, KilledServerAgent_ReplacesTheRemainingDaemon) {
    StartServer();
    const int left = DaemonPid();
    server_.Kill();
    EXPECT_TRUE(IsAlive(left));
    ASSERT_TRUE(server_.Start());
    EXPECT_TRUE(Await([&] { return DaemonPid() != left && DaemonRuns(); }));
    EXPECT_FALSE(IsAlive(left));
    StartClient();
    ExpectCaughtUp();
}

}  // namespace
