#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "support/Isolation.h"
#include "support/ProtectedSite.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// In a child, since it takes a mount namespace.
bool CanMountOverlay() {
    const test::TempDir place;
    for (const char* name : {"low", "up", "work", "at"}) fs::create_directory(place.Path(name));
    const std::string options = "userxattr,lowerdir=" + place.Path("low") +
                                ",upperdir=" + place.Path("up") + ",workdir=" + place.Path("work");
    const pid_t child = ::fork();
    if (child == 0) {
        const bool is_done = test::UnshareMounts() && ::mount("overlay", place.Path("at").c_str(),
                                                              "overlay", 0, options.c_str()) == 0;
        ::_exit(is_done ? 0 : 1);
    }
    int status = 1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

/// What a visitor can see of a tree: type, mode, content and target of each object.
std::map<std::string, std::string> Contents(const std::string& root) {
    std::map<std::string, std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const fs::file_status status = entry.symlink_status();
        std::string text = std::to_string(static_cast<int>(status.type())) + " " +
                           std::to_string(static_cast<int>(status.permissions())) + " ";
        if (fs::is_symlink(status)) {
            text += fs::read_symlink(entry).string();
        } else if (fs::is_regular_file(status)) {
            text += test::TempDir::Read(entry.path().string());
        }
        all[fs::relative(entry.path(), root).string()] = text;
    }
    return all;
}

class Deploying : public test::ProtectedSite {
  protected:
    void SetUp() override {
        if (!CanMountOverlay()) GTEST_SKIP() << "no overlay can be mounted here";
        Protect();
        ASSERT_TRUE(Await([this] { return !Path()["baseline"].isNull(); })) << agent_.Status();
        before_ = Contents(site_.Path());
    }
    Json::Value Path() { return agent_.Status()["protected_paths"][0]; }
    std::string Copy() const { return backup_.Path() + site_.Path(); }
    static std::vector<std::string> Words(std::vector<std::string> first,
                                          const std::vector<std::string>& rest) {
        first.insert(first.end(), rest.begin(), rest.end());
        return first;
    }
    /// `script` runs in the site.
    test::CommandResult Deploy(const std::string& script,
                               const std::vector<std::string>& options = {"--yes"}) {
        return agent_.Ctl(Words(Words({"deploy", site_.Path()}, options),
                                {"--", "sh", "-ec", "cd " + site_.Path() + "; " + script}));
    }
    /// The same without waiting for its end.
    pid_t DeployInBackground(const std::string& script) const {
        const std::string program = agent_.Path("bin/morvanectl");
        const std::string words = "cd " + site_.Path() + "; " + script;
        const pid_t child = ::fork();
        if (child != 0) return child;
        ::setpgid(0, 0);
        const int nowhere = ::open("/dev/null", O_RDWR);
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
        ::execl(program.c_str(), program.c_str(), "deploy", site_.Path().c_str(), "--yes", "--",
                "sh", "-ec", words.c_str(), nullptr);
        ::_exit(1);
    }
    static int Reap(pid_t child) {
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::size_t Alarms() const { return agent_.JsonLines({"alarms", "--json"}).size(); }
    bool HasReport(const std::string& text) const {
        for (const Json::Value& report : agent_.JsonLines({"reports", "--json"})) {
            const bool is_ours = report["name"] == "sentrel_deploy_1";
            if (is_ours && report["body"].asString().find(text) != std::string::npos) return true;
        }
        return false;
    }
    /// Site and copies are as the approved state says, and nothing is left behind.
    void ExpectClean() {
        const test::CommandResult verified = agent_.Ctl({"verify", "--full"});
        EXPECT_EQ(verified.exit_code, 0) << verified.out << verified.err;
        EXPECT_EQ(agent_.Ctl({"verify", "--copies"}).exit_code, 0);
        EXPECT_TRUE(Await([this] { return fs::is_empty(agent_.Path("data/deploy")); }));
    }
    void ExpectUnchanged() {
        EXPECT_EQ(Contents(site_.Path()), before_);
        EXPECT_EQ(Contents(Copy()), before_);
        ExpectClean();
    }

    std::map<std::string, std::string> before_;
};

TEST_F(Deploying, CommandThatSucceeds_ChangesTheSiteAsAWhole) {
    const test::CommandResult done = Deploy(
        "echo new > index.html; rm about.html; rm -r img; echo x > img; ln -s index.html home; "
        "mkdir -p lib/a; echo y > lib/a/b; chmod 600 news.html; grep -q new index.html");
    ASSERT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "new\n");
    EXPECT_FALSE(fs::exists(site_.Path("about.html")));
    EXPECT_EQ(test::TempDir::Read(site_.Path("img")), "x\n");
    EXPECT_EQ(fs::read_symlink(site_.Path("home")), "index.html");
    EXPECT_EQ(test::TempDir::Read(site_.Path("lib/a/b")), "y\n");
    EXPECT_NE(done.out.find("6 differences"), std::string::npos) << done.out;
    EXPECT_EQ(Contents(site_.Path()), Contents(Copy()));
    EXPECT_EQ(Path()["baseline"]["generation"].asInt(), 2);
    EXPECT_EQ(Alarms(), 0U) << agent_.Ctl({"alarms", "--json"}).out;
    EXPECT_TRUE(HasReport("\"outcome\":\"deployed\""));
    ExpectClean();
    EXPECT_EQ(agent_.Ctl({"baseline", "rollback", "1", "--yes"}).exit_code, 0);
    ExpectUnchanged();
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Deploying, CommandThatFails_ChangesNothing) {
    const struct {
        const char* script;
        std::vector<std::string> options;
        int exit_code;
    } cases[] = {
        {"echo half > index.html; rm -r img; exit 7", {"--yes"}, 7},
        {"echo half > index.html; kill -9 $$", {"--yes"}, 128 + SIGKILL},
        {"echo half > index.html; sleep 60", {"--yes", "--for", "1s"}, 124},
        {"echo half > index.html; mkfifo pipe", {"--yes"}, 125},
        {"echo half > index.html", {"--dry-run"}, 0},
        {"echo half > index.html", {}, 122},  // no terminal
    };
    for (const auto& one : cases) {
        const test::CommandResult done = Deploy(one.script, one.options);
        EXPECT_EQ(done.exit_code, one.exit_code) << one.script << done.out << done.err;
    }
    EXPECT_EQ(agent_.Ctl({"deploy", site_.Path(), "--yes", "--", "/no/such"}).exit_code, 127);
    EXPECT_EQ(agent_.Ctl({"deploy", "/etc", "--yes", "--", "true"}).exit_code, 122);
    EXPECT_EQ(Alarms(), 0U);
    ExpectUnchanged();
}

TEST_F(Deploying, MorvanectlThatIsKilled_LeavesNothingBehind) {
    const std::string pid_file = agent_.Path("pid");
    for (const int signal : {SIGKILL, SIGTERM, SIGHUP}) {
        const pid_t ctl =
            DeployInBackground("echo half > index.html; rm -r img; echo $$ > " + pid_file +
                               "; trap '' HUP; while :; do sleep 0.1; done");
        ASSERT_TRUE(Await([&] { return !test::TempDir::Read(pid_file).empty(); }));
        EXPECT_EQ(agent_.Status()["deploys"].size(), 1U);
        ::kill(ctl, signal);
        EXPECT_EQ(Reap(ctl), signal == SIGKILL ? -SIGKILL : 128 + signal);
        const pid_t command = std::stoi(test::TempDir::Read(pid_file));
        EXPECT_TRUE(Await([&] { return ::kill(command, 0) != 0; }));
        fs::remove(pid_file);
        if (signal != SIGKILL) continue;
        // A restart finds that nobody holds the deploy any more.
        agent_.Kill();
        ASSERT_TRUE(agent_.Start());
        ASSERT_TRUE(AwaitProtection());
    }
    ExpectUnchanged();
}

TEST_F(Deploying, AgentThatIsKilledInTheCommit_CompletesItWhenItStarts) {
    std::string script = "rm -r img; ";
    for (int i = 0; i < 400; ++i)
        script += "echo " + std::to_string(i) + " > page$((" + std::to_string(i) + ")).html; ";
    // Each round kills it at another point.
    for (const int delay_ms : {0, 20, 60, 150}) {
        const std::string content = "round " + std::to_string(delay_ms);
        const pid_t ctl =
            DeployInBackground(script + "for i in *; do echo " + content + " > $i; done");
        ASSERT_TRUE(Await([&] {
            return test::TempDir::Read(Copy() + "/index.html") == content + "\n" ||
                   (delay_ms == 0 && agent_.Status()["deploys"][0]["state"] == "committing");
        }));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
        agent_.Kill();
        Reap(ctl);
        ASSERT_TRUE(agent_.Start());
        ASSERT_TRUE(
            Await([&] { return agent_.IsProtecting() && agent_.Status()["deploys"].empty(); }));
        for (const auto& [name, text] : Contents(site_.Path())) {
            EXPECT_NE(text.find(content), std::string::npos) << name << text;
        }
        EXPECT_EQ(Contents(site_.Path()).size(), 403U);
        EXPECT_EQ(Path()["held"].asInt(), 0);
        EXPECT_EQ(Alarms(), 0U) << agent_.Ctl({"alarms"}).out;
        ExpectClean();
        script.clear();
    }
}

TEST_F(Deploying, ProcessLeftBehind_IsEndedBeforeItsFilesAreTaken) {
    const std::string pid_file = site_.Path("pid");
    const test::CommandResult done = Deploy(
        "(setsid sh -c 'echo $$ > pid; while :; do echo late > t; mv t index.html; echo > done; "
        "done' &) ; "
        "while ! test -e done; do :; done");
    ASSERT_EQ(done.exit_code, 0) << done.out << done.err;
    const std::string pid = test::TempDir::Read(pid_file);
    EXPECT_NE(::kill(std::stoi(pid), 0), 0);
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "late\n");
    ExpectClean();
}

TEST_F(Deploying, ForeignChangeMeanwhile_IsUndoneAndNotDeployed) {
    const std::string gate = agent_.Path("gate");
    std::thread attacker([&] {
        EXPECT_TRUE(Await([&] { return fs::exists(gate); }));
        std::ofstream(site_.Path("shell.php")) << "evil";
        std::ofstream(site_.Path("about.html")) << "defaced";
        EXPECT_TRUE(Await([&] {
            return !fs::exists(site_.Path("shell.php")) &&
                   test::TempDir::Read(site_.Path("about.html")) == Good("about.html");
        }));
        fs::remove(gate);
    });
    const test::CommandResult done =
        Deploy("touch " + gate + "; while test -e " + gate +
               "; do find . -name '*.html' -o -name '*.php' | xargs chown 0:0; "
               "chmod 644 about.html; cat about.html > seen; done; echo new > news.html");
    attacker.join();
    ASSERT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("seen")), Good("about.html"));
    EXPECT_EQ(test::TempDir::Read(site_.Path("news.html")), "new\n");
    EXPECT_TRUE(agent_.HasAlarm("add", site_.Path("shell.php")));
    EXPECT_TRUE(agent_.HasAlarm("modify", site_.Path("about.html")));
    EXPECT_FALSE(fs::exists(site_.Path("shell.php")));
    ExpectClean();
}

}  // namespace
