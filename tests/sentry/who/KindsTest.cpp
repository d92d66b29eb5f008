// Changes pages in many ways, and counts how often the room names the right process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/writer.h>
#include <signal.h>
#include <spawn.h>
#include <support/TempDir.h>
#include <support/WaitFor.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "who/WhoRoom.h"

namespace {

namespace fs = std::filesystem;

struct Kind {
    std::string name;
    std::vector<std::string> command;  ///< "FILE" stands for the page
    std::string exe;
    unsigned uid = 0;
    unsigned euid = 0;
    std::string changed = "";  ///< behind the page's path
    bool tells_pid = true;     ///< else the started process makes the change
    bool is_child = false;     ///< a child of the started process makes it
};

Kind Own(const std::string& name, unsigned uid = 0, unsigned euid = 0,
         const std::string& changed = "") {
    return {name, {SENTREL_ATTACKER, name, "FILE"}, SENTREL_ATTACKER, uid, euid, changed};
}

Kind Shell(const std::string& name, const std::string& script, bool is_child = false) {
    return {name, {"/bin/sh", "-c", script}, fs::canonical("/bin/sh"), 0, 0, "", false, is_child};
}

const std::vector<Kind>& Kinds() {
    static const std::vector<Kind> kinds{
        Own("write"),
        Own("rename"),
        Own("exec-away"),
        Own("double-fork"),
        Own("user", 65534, 65534),
        Own("user-later"),
        Own("effective-user", 0, 65534),
        Own("namespace"),
        Own("thread"),
        Own("remove"),
        Own("mode"),
        Own("directory", 0, 0, ".d"),
        Shell("redirect", "echo defaced > FILE"),
        Shell("subshell", "(echo defaced >> FILE); :", true),
        Shell("shell-exec-away", "echo defaced > FILE; exec /bin/true"),
        {"sed",
         {"/bin/sed", "-i", "s/page/defaced/", "FILE"},
         fs::canonical("/bin/sed"),
         0,
         0,
         "",
         false},
        {"perl",
         {"/usr/bin/perl", "-e", "open(F,'>','FILE');print F 'defaced'"},
         fs::canonical("/usr/bin/perl"),
         0,
         0,
         "",
         false},
    };
    return kinds;
}

std::string Replaced(std::string text, const std::string& file) {
    const std::size_t at = text.find("FILE");
    return at == std::string::npos ? text : text.replace(at, 4, file);
}

/// A process with descriptor 3 and its standard input at this one.
class Started {
  public:
    Started(const Kind& kind, const std::string& file) {
        std::vector<std::string> words;
        for (const std::string& word : kind.command) words.push_back(Replaced(word, file));
        std::vector<char*> arguments;
        for (std::string& word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        int report[2];
        int input[2];
        if (::pipe2(report, O_CLOEXEC) != 0 || ::pipe2(input, O_CLOEXEC) != 0) std::abort();
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        const int high = ::fcntl(report[1], F_DUPFD_CLOEXEC, 64);
        ::posix_spawn_file_actions_adddup2(&actions, high, 3);
        ::posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        EXPECT_EQ(::posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ),
                  0);
        ::posix_spawn_file_actions_destroy(&actions);
        for (const int fd : {report[1], high, input[0]}) ::close(fd);
        report_.Reset(report[0]);
        input_.Reset(input[1]);
    }
    ~Started() { End(); }

    pid_t Pid() const { return pid_; }

    /// What the process told; 0: it ended.
    pid_t Told() {
        pid_t pid = 0;
        return ::read(report_.Get(), &pid, sizeof(pid)) == sizeof(pid) ? pid : 0;
    }
    void Poke() { EXPECT_EQ(::write(input_.Get(), "x", 1), 1); }

    /// Also of the processes that hold descriptor 3.
    void End() {
        input_.Reset();
        while (Told() != 0) {
        }
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }

  private:
    pid_t pid_ = 0;
    SDK::FileDescriptor report_;
    SDK::FileDescriptor input_;
};

class WhoKinds : public testing::Test {
  protected:
    enum class Result { kRight, kUnknown, kWrong };

    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
        ::chmod(site_.Path().c_str(), 0777);
        agent_ = ::fork();
        if (agent_ == 0) {
            ::pause();
            ::_exit(0);
        }
        room_.Start(Settings(), agent_, [](const Json::Value&, int) { return true; });
        Json::Value request;
        request["paths"][0]["path"] = site_.Path() + "/";
        if (room_.Answer("watch", request).isMember("error")) GTEST_SKIP() << room_.Status();
        const auto is_watched = [&] { return room_.Status()["directories"].asInt() > 0; };
        const auto why = [&] { return room_.Status()["why"].asString(); };
        ASSERT_TRUE(test::WaitFor([&] { return is_watched() || !why().empty(); },
                                  std::chrono::seconds(10)));
        if (!is_watched()) GTEST_SKIP() << why();
    }
    void TearDown() override {
        room_.Stop();
        if (agent_ > 0) ::kill(agent_, SIGKILL);
        if (agent_ > 0) ::waitpid(agent_, nullptr, 0);
    }

    static Json::Value Settings() {
        Json::Value settings(Json::objectValue);
        settings["who"] = "on";
        return settings;
    }
    bool HasProcessEvents() { return room_.Status()["process_events"].asBool(); }

    Json::Value Lookup(const std::string& path) {
        Json::Value request;
        request["of"][0]["path"] = path;
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        request["of"][0]["at"] = std::to_string(now.tv_sec * Sentry::kSecond + now.tv_nsec);
        return room_.Answer("lookup", request)["who"][0];
    }

    Result Judge(const Kind& kind, const Json::Value& who, pid_t started, pid_t told) {
        const bool is_named = who.isMember("exe") && who.isMember("uid");
        if (who["certainty"] == "unknown" || !is_named) {
            std::cout << kind.name << ": " << who["reason"] << std::endl;
            return Result::kUnknown;
        }
        const pid_t pid = kind.is_child ? who["parents"][0]["pid"].asInt() : who["pid"].asInt();
        const bool is_right = pid == (kind.tells_pid ? told : started) && who["exe"] == kind.exe &&
                              who["uid"] == kind.uid && who["euid"] == kind.euid;
        if (!is_right) ADD_FAILURE() << kind.name << ", process " << told << ": " << who;
        return is_right ? Result::kRight : Result::kWrong;
    }

    Result Play(const Kind& kind, int round) {
        const std::string file = site_.Write(kind.name + std::to_string(round) + ".html", "page");
        ::chmod(file.c_str(), 0666);
        Started process(kind, file);
        const pid_t started = process.Pid();
        const pid_t told = kind.tells_pid ? process.Told() : 0;
        process.End();
        return Judge(kind, Lookup(file + kind.changed), started, told);
    }

    static int Rounds() {
        const char* rounds = std::getenv("WHO_ROUNDS");
        return rounds == nullptr ? 12 : std::atoi(rounds);
    }

    test::TempDir site_;
    pid_t agent_ = 0;
    Sentry::WhoRoom room_;
};

TEST_F(WhoKinds, EachKindOfChange_NamesTheRightProcess) {
    if (!HasProcessEvents()) GTEST_SKIP() << room_.Status();
    int right = 0;
    int unknown = 0;
    for (const Kind& kind : Kinds()) {
        int kind_right = 0;
        for (int round = 0; round < Rounds(); ++round) {
            const Result result = Play(kind, round);
            if (result == Result::kRight) ++kind_right;
            if (result == Result::kUnknown) ++unknown;
        }
        right += kind_right;
        std::cout << kind.name << ": " << kind_right << " of " << Rounds() << std::endl;
    }
    const int all = Rounds() * static_cast<int>(Kinds().size());
    // A machine that builds meanwhile lets the reader wait.
    EXPECT_GE(right * 1000, all * (Rounds() < 100 ? 980 : 995))
        << right << " right, " << unknown << " unknown, of " << all;
}

TEST_F(WhoKinds, WriterThatKeepsItsDescriptor_IsNamedEachTime) {
    const std::string file = site_.Write("kept.html", "page");
    const Kind kind = Own("daemon");
    Started process(kind, file);
    for (int round = 0; round < Rounds(); ++round) {
        process.Poke();
        const pid_t told = process.Told();
        process.Told();
        EXPECT_EQ(Judge(kind, Lookup(file), process.Pid(), told), Result::kRight);
    }
}

TEST_F(WhoKinds, MovedDirectory_IsWatchedUnderItsNewNameOnly) {
    if (!HasProcessEvents()) GTEST_SKIP() << room_.Status();
    const auto marks = [&] { return room_.Status()["directories"].asInt(); };
    site_.Write("old/deep/page.html", "page");
    ASSERT_TRUE(test::WaitFor([&] { return marks() == 3; }, std::chrono::seconds(10))) << marks();
    fs::rename(site_.Path("old"), site_.Path("new"));
    const Kind kind = Own("write");
    // The directory has its new name once the event of its move was taken.
    EXPECT_TRUE(test::WaitFor(
        [&] {
            const std::string file = site_.Path("new/deep/page.html");
            Started process(kind, file);
            const pid_t told = process.Told();
            process.End();
            const Json::Value who = Lookup(file);
            return who["certainty"] == "exact" && who["pid"] == told;
        },
        std::chrono::seconds(10)));
    EXPECT_EQ(Lookup(site_.Path("old/deep/page.html"))["certainty"], "unknown");
    EXPECT_EQ(marks(), 3);
}

TEST_F(WhoKinds, Storm_LetsTheDirectoryRestAndIsNamedAgainAfterwards) {
    if (!HasProcessEvents()) GTEST_SKIP() << room_.Status();
    const auto resting = [&] { return room_.Status()["directories_resting"].asInt(); };
    std::vector<std::string> files;
    for (int i = 0; i < 100; ++i) files.push_back(site_.Write("s" + std::to_string(i), "x"));
    EXPECT_TRUE(test::WaitFor(
        [&] {
            for (unsigned i = 0; i < 20000; ++i) ::chmod(files[i % 100].c_str(), 0600 + i % 2);
            return resting() == 1;
        },
        std::chrono::seconds(20)));
    EXPECT_EQ(Lookup(files[0])["certainty"], "unknown");
    EXPECT_TRUE(test::WaitFor([&] { return resting() == 0; }, std::chrono::seconds(10)));
    EXPECT_TRUE(test::WaitFor([&] { return Play(Own("write"), 0) == Result::kRight; },
                              std::chrono::seconds(10)));
}

TEST_F(WhoKinds, OurOwnChanges_NameNobody) {
    const std::string file = site_.Write("own.html", "page");
    EXPECT_EQ(Lookup(file)["certainty"], "unknown");
    EXPECT_FALSE(Lookup(file).isMember("pid"));
}

}  // namespace
