#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <ctl/Cli.h>
#include <ctl/remote/Confinement.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>

#include "support/ApprovedSite.h"
#include "support/WaitFor.h"

namespace {

namespace fs = std::filesystem;
using test::TempDir;

constexpr char kId[] = "11111111-2222-3333-4444-555555555555";

/// morvanectl in this process, and an rsync daemon on the loopback address with the pushed copies.
class FromServer : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
        site_.Write("a/large.bin", std::string(300'000, 'x'));
        fs::create_directory(site_.Path("empty"));
        ASSERT_EQ(::chown(site_.Path("index.html").c_str(), 33, 34), 0);
        ASSERT_EQ(::chmod(site_.Path("index.html").c_str(), 0440), 0);
        ASSERT_EQ(::chmod(site_.Path("a").c_str(), 02751), 0);
        site_.Approve("first");
        const Baseline::BaselineStore store(site_.Data());
        ASSERT_EQ(store.MarkBackup(site_.Path() + "/", site_.Backup() + "/"), 0);
        site_.WriteInstalled("data/agent_id", std::string(kId) + "\n");
        site_.WriteInstalled("conf/rsync_client.secrets", "correct horse\n");
        ASSERT_EQ(::chmod(site_.Installed("conf/rsync_client.secrets").c_str(), 0600), 0);
        Poco::Net::ServerSocket free(Poco::Net::SocketAddress("127.0.0.1", 0));
        port_ = free.address().port();
        free.close();
        WritePolicy(2);
        fs::create_directories(fs::path(Pushed()).parent_path());
        ASSERT_EQ(std::system(("cp -a " + site_.Copy() + " " + Pushed()).c_str()), 0);
    }
    void TearDown() override {
        if (daemon_ <= 0) return;
        ::kill(daemon_, SIGKILL);
        ::waitpid(daemon_, nullptr, 0);
    }

    std::string Pushed() const { return server_.Path(std::string("here/") + kId + site_.Copy()); }
    std::string Pushed(const std::string& name) const { return Pushed() + "/" + name; }
    void WritePolicy(int type) {
        site_.WritePolicyText(
            R"({"enabled":true,"content":{"backup_addr":"127.0.0.1","backup_type":)" +
            std::to_string(type) + R"(,"backup_port":)" + std::to_string(port_) +
            R"(,"dirlist":[{"enable":true,"backup_path":")" + site_.Backup() + R"(","filepath":")" +
            site_.Path() + R"("}]}})");
    }

    void StartDaemon() {
        server_.Write("secrets", "morvane_agent:correct horse\n");
        ASSERT_EQ(::chmod(server_.Path("secrets").c_str(), 0600), 0);
        server_.Write("conf",
                      "use chroot = no\nmunge symlinks = no\nuid = 0\ngid = 0\n"
                      "log file = " +
                          server_.Path("log") +
                          "\n[morvane_agent]\nauth users = morvane_agent\nsecrets file = " +
                          server_.Path("secrets") + "\npath = " + server_.Path("here") + "\n");
        const std::string conf = "--config=" + server_.Path("conf");
        const std::string port = "--port=" + std::to_string(port_);
        daemon_ = ::fork();
        if (daemon_ == 0) {
            ::execl("/usr/bin/rsync", "rsync", "--daemon", "--no-detach", "--address=127.0.0.1",
                    conf.c_str(), port.c_str(), nullptr);
            ::_exit(1);
        }
        ASSERT_TRUE(test::WaitFor(
            [&] {
                try {
                    Poco::Net::StreamSocket probe(Poco::Net::SocketAddress("127.0.0.1", port_));
                    return true;
                } catch (const Poco::Exception&) {
                    return false;
                }
            },
            std::chrono::seconds(10)));
    }

    /// What runs in place of rsync: `$folder` is where it is to write.
    void InstallRsync(const std::string& script) {
        site_.WriteInstalled("bin/rsync", "#!/bin/sh\nfor folder; do :; done\n" + script + "\n");
        ASSERT_EQ(::chmod(site_.Installed("bin/rsync").c_str(), 0500), 0);
    }

    int Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "morvanectl");
        std::vector<const char*> pointers;
        for (const std::string& argument : arguments) pointers.push_back(argument.c_str());
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Ctl::Main(static_cast<int>(pointers.size()), pointers.data());
        out_ = testing::internal::GetCapturedStdout();
        errors_ = testing::internal::GetCapturedStderr();
        return code;
    }
    int Fetch() { return Run({"restore", "--all", "--from-server", "--yes"}); }

    void LoseCopies() {
        for (const auto& entry : fs::directory_iterator(site_.Backup())) fs::remove_all(entry);
    }
    bool IsStagingGone() const {
        const std::string scratch = site_.Backup() + "/.morvane-tmp";
        return !fs::exists(scratch) || fs::is_empty(scratch);
    }

    test::ApprovedSite site_;
    TempDir server_;
    pid_t daemon_ = -1;
    int port_ = 0;
    std::string out_;
    std::string errors_;
};

TEST_F(FromServer, LostCopies_AreBackAsApproved) {
    StartDaemon();
    EXPECT_EQ(Fetch(), 0) << errors_;
    EXPECT_NE(out_.find("No backup copy is lost."), std::string::npos) << out_;
    for (int i = 0; i < 2; ++i) {
        if (i == 0) {
            LoseCopies();
        } else {
            std::ofstream(site_.Copy("a/style.css")) << "STYLE\n";
            ASSERT_EQ(::chmod(site_.Copy("index.html").c_str(), 0644), 0);
            fs::remove_all(site_.Copy("empty"));
            fs::create_symlink("/etc", site_.Copy("empty"));
            fs::remove(site_.Copy("home"));
        }
        EXPECT_EQ(Run({"restore", "--all", "--from-server", "--dry-run"}), 2) << errors_;
        EXPECT_EQ(Run({"verify", "--copies"}), 2);
        EXPECT_EQ(Fetch(), 0) << out_ << errors_;
        EXPECT_EQ(Run({"verify", "--copies"}), 0) << out_ << errors_;
        EXPECT_TRUE(Baseline::BaselineStore(site_.Data())
                        .IsMarkedBackup(site_.Path() + "/", site_.Backup() + "/"));
        struct stat copy {};
        struct stat page {};
        ASSERT_EQ(::stat(site_.Copy("a/large.bin").c_str(), &copy), 0);
        ASSERT_EQ(::stat(site_.Path("a/large.bin").c_str(), &page), 0);
        EXPECT_EQ(copy.st_mtime, page.st_mtime);
        EXPECT_TRUE(IsStagingGone());
    }
}

TEST_F(FromServer, WhatTheServerHasDifferently_IsListedAndStaysAway) {
    const std::string page = Pushed("index.html");
    const TempDir elsewhere;
    struct Row {
        const char* what;
        std::function<void()> make;
        const char* why;
    };
    const std::string size(fs::file_size(page), 'y');
    StartDaemon();
    for (const Row& row : std::vector<Row>{
             {"missing", [] {}, "nothing"},
             {"other content", [&] { std::ofstream(page) << size; }, "something else"},
             {"larger", [&] { std::ofstream(page) << std::string(3'000'000, 'y'); }, "nothing"},
             {"link", [&] { fs::create_symlink("/etc/passwd", page); }, "nothing"},
             {"pipe", [&] { ::mkfifo(page.c_str(), 0644); }, "nothing"},
             {"directory", [&] { fs::create_directory(page); }, "something else"},
         }) {
        fs::remove_all(page);
        row.make();
        LoseCopies();
        EXPECT_EQ(Fetch(), 1) << row.what << out_ << errors_;
        const std::string line = "not back  " + site_.Copy("index.html") + "  the server ";
        EXPECT_NE(out_.find(line), std::string::npos) << row.what << out_ << errors_;
        EXPECT_NE(out_.find(row.why), std::string::npos) << row.what << out_;
        EXPECT_NE(out_.find("6 of 7 lost copies"), std::string::npos) << row.what << out_;
        EXPECT_FALSE(fs::exists(fs::symlink_status(site_.Copy("index.html")))) << row.what;
        EXPECT_EQ(TempDir::Read(site_.Copy("a/style.css")), "style\n") << row.what;
        EXPECT_TRUE(IsStagingGone());
    }
}

TEST_F(FromServer, RsyncInTheHandsOfTheServer_ReachesNothingElse) {
    const TempDir outside;
    ASSERT_EQ(::chmod(outside.Path().c_str(), 0777), 0);
    outside.Write("secret", "the secret");
    ASSERT_EQ(::chmod(outside.Path("secret").c_str(), 0600), 0);
    LoseCopies();
    const std::string copy = site_.Copy("a/style.css");
    InstallRsync(
        "cd \"$folder\" || exit 9\n"
        "echo \"user $(/usr/bin/id -u) read $(cat " +
        outside.Path("secret") + " 2>&1)\"\n" + "echo x > " + outside.Path("made") +
        "\nmkfifo pipe\n"
        "[ ! -e pipe ] || echo x > " +
        outside.Path("made") +
        "\nhead -c 3000000 /dev/zero > huge\n"
        "mkdir -p .$(dirname " +
        copy + ")\nln -s " + outside.Path("secret") + " ." + copy + "\nexit 7");
    EXPECT_EQ(Fetch(), 1);
    EXPECT_EQ(errors_.find("rsync ended with 7: user 65534 read "), 0U) << errors_;
    EXPECT_EQ(out_.find("the secret"), std::string::npos);
    EXPECT_NE(out_.find("not back  " + copy), std::string::npos) << out_;
    EXPECT_FALSE(fs::exists(fs::symlink_status(copy)));
    if (Ctl::Confinement({outside.Path(), {}, 1, 1}).IsComplete()) {
        EXPECT_EQ(errors_.find("the secret"), std::string::npos) << errors_;
        EXPECT_FALSE(fs::exists(outside.Path("made")));
    }
    InstallRsync("i=0; while :; do i=$((i+1)); head -c 1000000 /dev/zero > \"$folder/$i\"; done");
    EXPECT_EQ(Fetch(), 1);
    EXPECT_EQ(errors_.find("The server sends more than it was asked for."), 0U) << errors_;
    EXPECT_TRUE(IsStagingGone());
}

TEST_F(FromServer, WhatCannotBegin_IsRefusedAndChangesNothing) {
    LoseCopies();
    EXPECT_EQ(Run({"restore", "--all", "--yes"}), 2);
    EXPECT_EQ(Fetch(), 1) << "no daemon";
    EXPECT_NE(errors_.find("rsync ended with 10: "), std::string::npos) << errors_;
    EXPECT_EQ(::chmod(site_.Backup().c_str(), 0777), 0);
    EXPECT_EQ(Fetch(), 4) << errors_;
    EXPECT_EQ(::chmod(site_.Backup().c_str(), 0700), 0);
    std::ofstream(site_.Backup() + "/.morvane-backup-id") << "another";
    EXPECT_EQ(Fetch(), 4) << errors_;
    WritePolicy(0);
    EXPECT_EQ(Fetch(), 4);
    EXPECT_NE(errors_.find("names no backup server"), std::string::npos) << errors_;
    EXPECT_FALSE(fs::exists(site_.Copy()));
}

}  // namespace
