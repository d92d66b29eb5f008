#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <tuple>

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
        const std::string staged = agent_.Path("data/deploy");
        EXPECT_TRUE(Await([&] { return !fs::exists(staged) || fs::is_empty(staged); }));
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

TEST_F(Deploying, KeyThatIsKeptElsewhere_IsLentForDeployAndProtect) {
    const std::string key = agent_.Path("kept.key");
    fs::rename(agent_.Path("data/baseline/signing.key"), key);
    const std::string script = "echo new > index.html";
    EXPECT_EQ(Deploy(script).exit_code, 125);
    EXPECT_EQ(
        Deploy(script, {"--yes", "--key", agent_.Path("data/baseline/signing.pub")}).exit_code,
        122);
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), Good("index.html"));
    const test::CommandResult done = Deploy(script, {"--yes", "--key", key});
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "new\n");
    const test::TempDir another;
    another.Write("page", "x");
    const test::TempDir copies;
    const std::vector<std::string> protect = {"protect", another.Path(), "--yes", "--backup",
                                              copies.Path("here")};
    EXPECT_EQ(agent_.Ctl(protect).exit_code, 4);
    std::vector<std::string> with_key = protect;
    with_key.insert(with_key.end(), {"--key", key});
    const test::CommandResult protected_now = agent_.Ctl(with_key);
    EXPECT_EQ(protected_now.exit_code, 0) << protected_now.err;
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
    // Each round kills it when that many pages of the site are new.
    for (const int pages : {0, 1, 100, 300}) {
        const std::string content = "round " + std::to_string(pages);
        const auto is_new = [&](const auto& page) {
            return page.second.find(content) != std::string::npos;
        };
        const pid_t ctl =
            DeployInBackground(script + "for i in *; do echo " + content + " > $i; done");
        ASSERT_TRUE(Await([&] {
            if (pages == 0) {
                return test::TempDir::Read(Copy() + "/index.html") == content + "\n" ||
                       agent_.Status()["deploys"][0]["state"] == "committing";
            }
            const auto site = Contents(site_.Path());
            return std::count_if(site.begin(), site.end(), is_new) >= pages;
        }));
        agent_.Kill();
        Reap(ctl);
        ASSERT_TRUE(agent_.Start());
        ASSERT_TRUE(
            Await([&] { return agent_.IsProtecting() && agent_.Status()["deploys"].empty(); }));
        for (const auto& page : Contents(site_.Path())) {
            EXPECT_TRUE(is_new(page)) << page.first << page.second;
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
        Deploy("touch " + gate +
               "; while :; do find . -name '*.html' -o -name '*.php' | xargs chown 0:0; "
               "chmod 644 about.html; cat about.html > seen; test -e " +
               gate + " || break; done; echo new > news.html");
    attacker.join();
    ASSERT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("seen")), Good("about.html"));
    EXPECT_EQ(test::TempDir::Read(site_.Path("news.html")), "new\n");
    EXPECT_TRUE(agent_.HasAlarm("add", site_.Path("shell.php")));
    EXPECT_TRUE(agent_.HasAlarm("modify", site_.Path("about.html")));
    EXPECT_FALSE(fs::exists(site_.Path("shell.php")));
    ExpectClean();
}

TEST_F(Deploying, Pause_HoldsChangesOverARestartUntilTheyAreDecided) {
    const auto change = [&](const std::string& name) {
        std::ofstream(site_.Path(name)) << "changed";
        return Await(
            [&] { return agent_.HasAlarm(name == "added" ? "add" : "modify", site_.Path(name)); });
    };
    ASSERT_EQ(agent_.Ctl({"pause", site_.Path(), "--for", "1h", "--reason", "fix"}).exit_code, 0);
    EXPECT_TRUE(change("index.html"));
    EXPECT_TRUE(change("added"));
    fs::remove(site_.Path("news.html"));
    EXPECT_TRUE(Await([&] { return Path()["held"].asInt() == 3; })) << Path();
    EXPECT_EQ(agent_.Ctl({"deploy", site_.Path(), "--yes", "--", "true"}).exit_code, 122);
    EXPECT_EQ(agent_.Ctl({"resume", site_.Path()}).exit_code, 2);  // no terminal
    agent_.Kill();
    std::ofstream(site_.Path("about.html")) << "changed";
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(Await([&] { return Path()["held"].asInt() == 4; })) << Path();
    EXPECT_EQ(agent_.Status()["pauses"][0]["reason"], "fix");
    EXPECT_TRUE(change("img/logo.svg"));
    EXPECT_EQ(test::TempDir::Read(site_.Path("img/logo.svg")), "changed");
    const test::CommandResult accepted = agent_.Ctl({"resume", site_.Path(), "--accept"});
    EXPECT_EQ(accepted.exit_code, 0) << accepted.out << accepted.err;
    EXPECT_NE(accepted.out.find("5 differences"), std::string::npos) << accepted.out;
    EXPECT_EQ(Contents(site_.Path()), Contents(Copy()));
    // Protection goes on against what was accepted.
    std::ofstream(site_.Path("index.html")) << "defaced";
    EXPECT_TRUE(Await([&] { return test::TempDir::Read(site_.Path("index.html")) == "changed"; }));
    ExpectClean();
}

TEST_F(Deploying, PauseThatEndsByItself_KeepsItsChangesHeld) {
    ASSERT_EQ(agent_.Ctl({"pause", site_.Path(), "--for", "2s"}).exit_code, 0);
    std::ofstream(site_.Path("index.html")) << "changed";
    EXPECT_TRUE(Await([&] { return agent_.Status()["pauses"].empty(); }));
    EXPECT_EQ(Path()["held"].asInt(), 1);
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "changed");
    EXPECT_TRUE(HasReport("pause ended by itself"));
    EXPECT_TRUE(TamperingIsUndone("news.html"));
    EXPECT_EQ(agent_.Ctl({"resume", site_.Path(), "--restore"}).exit_code, 4);
    EXPECT_EQ(agent_.Ctl({"restore", site_.Path()}).exit_code, 0);
    ExpectUnchanged();
}

TEST_F(Deploying, TreeForSeveralCommands_IsCommittedAbortedOrEndsByItself) {
    const auto begin = [&](const std::string& time) {
        const test::CommandResult begun =
            agent_.Ctl({"deploy", "begin", site_.Path(), "--for", time});
        EXPECT_EQ(begun.exit_code, 0) << begun.err;
        std::istringstream lines(begun.out);
        std::array<std::string, 2> id_and_tree;
        std::getline(lines, id_and_tree[0]);
        std::getline(lines, id_and_tree[1]);
        return id_and_tree;
    };
    auto [id, tree] = begin("1h");
    EXPECT_EQ(agent_.JsonLines({"deploy", "list", "--json"})[0]["tree"], tree);
    test::TempDir source;
    source.Write("index.html", "new");
    source.Write("sub/page.html", "page");
    ASSERT_EQ(std::system(("rsync -a --delete " + source.Path() + "/ " + tree).c_str()), 0);
    EXPECT_EQ(Contents(site_.Path()), before_);
    {
        const std::ifstream busy(tree + "/index.html");
        EXPECT_EQ(agent_.Ctl({"deploy", "commit", id, "--yes"}).exit_code, 125);
    }
    const test::CommandResult done = agent_.Ctl({"deploy", "commit", id, "--yes"});
    ASSERT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(Contents(site_.Path()), Contents(source.Path()));
    before_ = Contents(site_.Path());
    std::tie(id, tree) = std::tuple_cat(begin("1h"));
    source.Write("index.html", "never");
    fs::copy(source.Path("index.html"), tree, fs::copy_options::overwrite_existing);
    EXPECT_EQ(agent_.Ctl({"deploy", "abort", id}).exit_code, 0);
    ExpectUnchanged();
    std::tie(id, tree) = std::tuple_cat(begin("1s"));
    EXPECT_TRUE(Await([&] { return agent_.JsonLines({"deploy", "list", "--json"}).empty(); }));
    EXPECT_TRUE(HasReport("ended by itself"));
    ::umount2(tree.c_str(), MNT_DETACH);  // the agent of a test has mounts of its own
    EXPECT_EQ(Contents(site_.Path()), before_);
    EXPECT_EQ(Alarms(), 0U);
}

TEST_F(Deploying, ExcludedFiles_AreThoseOfTheSite) {
    Json::Value policy =
        test::ProtectionPolicy({{site_.Path(), backup_.Path(), true, {"cache", "up"}}});
    policy["content"]["dirlist"][0]["ignored_postfix"].append(".log");
    ASSERT_EQ(agent_.Apply(policy), 0);
    ASSERT_TRUE(AwaitProtection());
    site_.Write("cache/page", "cached");
    site_.Write("old.log", "kept");
    const std::string seen = agent_.Path("seen");
    EXPECT_EQ(Deploy("cp cache/page " + seen + "; echo live > cache/new; exit 1").exit_code, 1);
    EXPECT_EQ(test::TempDir::Read(seen), "cached");
    EXPECT_EQ(test::TempDir::Read(site_.Path("cache/new")), "live\n");
    const test::CommandResult done = Deploy(
        "echo x > old.log; echo y > new.log; mkdir -p up/a; echo z > up/a/b; echo p > index.html");
    EXPECT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("old.log")), "kept");
    EXPECT_EQ(test::TempDir::Read(site_.Path("new.log")), "y\n");
    EXPECT_EQ(test::TempDir::Read(site_.Path("up/a/b")), "z\n");
    EXPECT_NE(done.out.find("1 difference"), std::string::npos) << done.out;
    EXPECT_EQ(Alarms(), 0U);
    ExpectClean();
}

TEST_F(Deploying, ReleaseLinkThatIsSwitched_IsApprovedOrPutBack) {
    const std::string link = backup_.Path() + ".current";
    const test::TempDir releases;
    fs::create_symlink(site_.Path(), link);
    ASSERT_EQ(agent_.Apply(test::ProtectionPolicy({{link + "/", backup_.Path()}})), 0);
    ASSERT_TRUE(AwaitProtection());
    const std::string next = releases.Path("2");
    const auto deploy = [&](const std::string& end) {
        return agent_.Ctl({"deploy", link, "--yes", "--", "sh", "-ec",
                           "rm -rf " + next + "; cp -r " + link + "/. " + next + "; ln -sfn " +
                               next + " " + link + "; sleep 1.5; echo new > " + next +
                               "/index.html; " + end});
    };
    EXPECT_EQ(deploy("exit 3").exit_code, 3);
    EXPECT_EQ(fs::read_symlink(link), site_.Path());
    const test::CommandResult done = deploy("");
    EXPECT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(Path()["path"], next + "/");
    EXPECT_EQ(test::TempDir::Read(next + "/index.html"), "new\n");
    std::ofstream(next + "/index.html") << "defaced";
    EXPECT_TRUE(Await([&] { return test::TempDir::Read(next + "/index.html") == "new\n"; }));
    fs::remove(link);
}

// docs/deploying.md, "Recipes".
TEST_F(Deploying, RecipeGit_PullsIntoTheSite) {
    const test::TempDir origin;
    const auto git = [](const std::string& where, const std::string& what) {
        return std::system(("cd " + where + " && git -c user.name=t -c user.email=t@localhost " +
                            what + " >/dev/null 2>&1")
                               .c_str());
    };
    if (git(origin.Path(), "init -q --bare .") != 0) GTEST_SKIP() << "there is no git";
    ASSERT_EQ(agent_.Ctl({"pause", site_.Path()}).exit_code, 0);
    ASSERT_EQ(git(site_.Path(),
                  "init -q -b main . && git add -A && git -c user.name=t -c user.email=t@localhost "
                  "commit -qm 1 && git push -q " +
                      origin.Path() + " main"),
              0);
    ASSERT_EQ(agent_.Ctl({"resume", site_.Path(), "--accept"}).exit_code, 0);
    const test::TempDir work;
    ASSERT_EQ(git(work.Path(), "clone -q -b main " + origin.Path() + " w"), 0);
    work.Write("w/index.html", "pulled");
    work.Write("w/lib/new.php", "new");
    ASSERT_EQ(
        git(work.Path("w"),
            "add -A && git -c user.name=t -c user.email=t@localhost commit -qm 2 && git push -q"),
        0);
    const test::CommandResult done =
        agent_.Ctl({"deploy", site_.Path(), "--yes", "--reason", "release 2", "--", "git", "-C",
                    site_.Path(), "pull", "--ff-only", origin.Path(), "main"});
    EXPECT_EQ(done.exit_code, 0) << done.out << done.err;
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "pulled");
    EXPECT_EQ(test::TempDir::Read(site_.Path("lib/new.php")), "new");
    EXPECT_NE(Path()["baseline"]["approval"].asString().find("release 2"), std::string::npos);
    ExpectClean();
}

TEST_F(Deploying, RecipeDpkg_PausesWhileAPackageIsInstalled) {
    const test::TempDir package;
    package.Write("p/DEBIAN/control",
                  "Package: shop\nVersion: 2\nArchitecture: all\nMaintainer: t "
                  "<t@localhost>\nDescription: t\n");
    package.Write("p" + site_.Path("index.html"), "packaged");
    fs::create_directories(package.Path("db/updates"));
    for (const char* name : {"db/status", "db/available"}) package.Write(name, "");
    const std::string ctl = agent_.Path("bin/morvanectl");
    const std::string install =
        "dpkg-deb -b --root-owner-group " + package.Path("p") + " " + package.Path("shop.deb") +
        " >/dev/null && dpkg --admindir=" + package.Path("db") + " --log=/dev/null --pre-invoke='" +
        ctl + " pause " + site_.Path() + " --for 1h --reason dpkg' --post-invoke='" + ctl +
        " resume " + site_.Path() + " --accept' -i " + package.Path("shop.deb") + " >/dev/null";
    ASSERT_EQ(std::system(install.c_str()), 0);
    EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "packaged");
    EXPECT_TRUE(agent_.Status()["pauses"].empty());
    ExpectClean();
}

}  // namespace
