#include <fcntl.h>
#include <sdk/text/PercentCode.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "support/ProtectedSite.h"

namespace {

using namespace std::chrono_literals;
using test::TempDir;

/// A visitor: opens and reads a file again and again.
class Visitor {
  public:
    Visitor(std::string file, std::string good)
        : file_(std::move(file)), good_(std::move(good)), thread_([this] { Visit(); }) {}
    ~Visitor() { Stop(); }
    Visitor(const Visitor&) = delete;
    Visitor& operator=(const Visitor&) = delete;

    void Stop() {
        is_over_ = true;
        if (thread_.joinable()) thread_.join();
    }
    long Visits() const { return visits_; }
    long Tampered() const { return tampered_; }  ///< read something else than the good page
    long Errors() const { return errors_; }
    long Refused() const { return refused_; }
    long LongestMs() const { return longest_ms_; }

  private:
    void Visit() {
        while (!is_over_) {
            const auto begin = std::chrono::steady_clock::now();
            VisitOnce();
            const auto took = std::chrono::steady_clock::now() - begin;
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
            longest_ms_ = std::max<long>(longest_ms_, ms);
            ++visits_;
        }
    }
    void VisitOnce() {
        char text[256];
        const int page = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
        if (page < 0) {
            if (errno == EPERM) ++refused_;
            if (errno != ENOENT && errno != EPERM) ++errors_;
            return;
        }
        const ssize_t size = ::read(page, text, sizeof(text));
        ::close(page);
        if (size < 0) ++errors_;
        // The kernel shows a file as empty while it truncates it.
        if (size > 0 && std::string(text, static_cast<std::size_t>(size)) != good_) ++tampered_;
    }

    const std::string file_;
    const std::string good_;
    std::atomic<bool> is_over_{false};
    std::atomic<long> visits_{0};
    std::atomic<long> tampered_{0};
    std::atomic<long> errors_{0};
    std::atomic<long> refused_{0};
    std::atomic<long> longest_ms_{0};
    std::thread thread_;
};

class Shielding : public test::ProtectedSite {
  protected:
    static constexpr int kAttacks = 100;

    void SetUp() override {
        const int group = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
        if (group < 0) GTEST_SKIP() << "this kernel gives no fanotify group with permission events";
        ::close(group);
    }
    void StartShield(const std::string& mode, int answer_ms = 2000) {
        std::ofstream(agent_.Path("conf/agent.json"))
            << R"({"sentry": {"enabled": true, "answer_ms": )" << answer_ms << "}}";
        ASSERT_NO_FATAL_FAILURE(Protect());
        const test::CommandResult set = agent_.Ctl({"shield", site_.Path(), mode});
        ASSERT_EQ(set.exit_code, 0) << set.err;
        ASSERT_TRUE(AwaitShield(mode)) << agent_.Ctl({"shield", "--json"}).out << agent_.Status();
    }
    Json::Value Shielded() const {
        const auto lines = agent_.JsonLines({"shield", "--json"});
        return lines.empty() ? Json::Value(Json::objectValue) : lines.front();
    }
    bool AwaitShield(const std::string& mode) const {
        return Await([&] {
            const Json::Value one = Shielded();
            return one["in_force"] == mode && (mode == "off" || one["complete"].asBool());
        });
    }
    /// Starts the sentry by itself with no more rights than its unit gives it.
    pid_t StartSentry() const {
        const std::string program = agent_.Path("bin/morvane_sentry");
        const pid_t sentry = ::fork();
        if (sentry != 0) return sentry;
        ::execl("/usr/bin/setpriv", "setpriv", "--bounding-set",
                "-all,+sys_admin,+dac_override,+chown,+fowner,+fsetid", "--inh-caps", "-all",
                "--no-new-privs", "--pdeathsig", "KILL", program.c_str(), nullptr);
        ::_exit(1);
    }
    pid_t Guard() const { return agent_.Status()["sentry"]["process"].asInt(); }
    std::string Page() const { return site_.Path("index.html"); }
    std::string Good() const { return ProtectedSite::Good("index.html"); }
    void Replace(const std::string& name, const std::string& content) const {
        const std::string planted = elsewhere_.Write("planted", content);
        std::filesystem::rename(planted, site_.Path(name));
    }
    /// Waits for some more visits, so that each attack meets visitors.
    static void AwaitVisits(const Visitor& visitor) {
        const long before = visitor.Visits();
        test::WaitFor([&] { return visitor.Visits() > before + 3; }, test::Scaled(kDeadline));
    }
    void Overwrite(const std::string& content, int flags) const {
        const int page = ::open(Page().c_str(), O_WRONLY | O_CLOEXEC | flags);
        if (page < 0) return;
        EXPECT_GE(::pwrite(page, content.data(), content.size(), 0), 0);
        ::close(page);
    }

    const TempDir elsewhere_;
};

TEST_F(Shielding, PageThatIsReplaced_NoVisitorSeesTheOther) {
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    Visitor visitor(Page(), Good());
    for (int at = 0; at < kAttacks; ++at) {
        Replace("index.html", "defaced\n");
        AwaitVisits(visitor);
    }
    visitor.Stop();
    EXPECT_EQ(visitor.Tampered(), 0) << "of " << visitor.Visits();
    EXPECT_EQ(visitor.Errors() + visitor.Refused(), 0) << "of " << visitor.Visits() << Shielded();
    EXPECT_GT(Shielded()["healed"].asInt(), 0) << Shielded();
    EXPECT_EQ(Shielded()["late"].asInt(), 0) << Shielded();
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", Page()); }));
    EXPECT_TRUE(Await([&] { return TempDir::Read(Page()) == Good(); }));
    EXPECT_EQ(agent_.Stop(), 0);
}

// A response that is on its way while the attacker writes may have what he writes; no later one.
TEST_F(Shielding, PageThatIsWrittenInPlace_AtMostTheResponseInFlightIsAnother) {
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    Visitor visitor(Page(), Good());
    const std::string evil(Good().size(), 'X');
    for (int at = 0; at < kAttacks; ++at) {
        Overwrite(evil, at % 2 == 0 ? 0 : O_TRUNC);
        AwaitVisits(visitor);
    }
    visitor.Stop();
    EXPECT_LE(visitor.Tampered(), kAttacks) << "of " << visitor.Visits() << Shielded();
    EXPECT_EQ(visitor.Errors() + visitor.Refused(), 0) << "of " << visitor.Visits() << Shielded();
    EXPECT_TRUE(Await([&] { return TempDir::Read(Page()) == Good(); }));
}

TEST_F(Shielding, PlantedFile_IsRefusedUntilItIsGone) {
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    Visitor visitor(site_.Path("shell.php"), "");
    for (int at = 0; at < kAttacks; ++at) {
        Replace("shell.php", "<?php evil();");
        std::ofstream(site_.Path("img/shell.php")) << "<?php evil();";
    }
    EXPECT_TRUE(Await([&] { return !std::filesystem::exists(site_.Path("shell.php")); }));
    visitor.Stop();
    EXPECT_EQ(visitor.Tampered() + visitor.Errors(), 0) << "of " << visitor.Visits();
    EXPECT_GT(visitor.Refused(), 0);
}

TEST_F(Shielding, PageWithoutAUsableCopy_IsRefused) {
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    std::ofstream(backup_.Path() + Page(), std::ios::app) << "another";
    Visitor visitor(Page(), Good());
    Replace("index.html", "defaced\n");
    EXPECT_TRUE(Await([&] { return visitor.Refused() > kAttacks; }));
    visitor.Stop();
    EXPECT_EQ(visitor.Tampered() + visitor.Errors(), 0) << "of " << visitor.Visits();
}

TEST_F(Shielding, PageHealedBeforeTheAgentSawIt_HasItsAlarmAndEvidence) {
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    agent_.Signal(SIGSTOP);
    int status = 0;
    ASSERT_EQ(::waitpid(agent_.Pid(), &status, WUNTRACED), agent_.Pid());
    ASSERT_TRUE(WIFSTOPPED(status));
    Overwrite("defaced", 0);
    EXPECT_EQ(TempDir::Read(Page()), Good());
    agent_.Signal(SIGCONT);
    Json::Value alarm;
    ASSERT_TRUE(Await([&] {
        for (const Json::Value& one : agent_.JsonLines({"alarms", "--json"})) alarm = one;
        return alarm["outcome"] == "restored before it was read";
    })) << alarm;
    EXPECT_NE(alarm["evidence"].asString(), "") << alarm;
    EXPECT_EQ(agent_.Stop(), 0);
}

// Each page is opened right after its replacement, faster than the agent restores.
TEST_F(Shielding, ManyPagesAtOnce_AreHealedAndEachHasItsAlarm) {
    constexpr int kPages = 300;
    const auto page = [](int at) { return "many/page" + std::to_string(at) + ".html"; };
    for (int at = 0; at < kPages; ++at) site_.Write(page(at), ProtectedSite::Good(page(at)));
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    int wrong = 0;
    for (int at = 0; at < kPages; ++at) Replace(page(at), "defaced\n");
    for (int at = kPages - 1; at >= 0; --at) {
        if (TempDir::Read(site_.Path(page(at))) != ProtectedSite::Good(page(at))) ++wrong;
    }
    EXPECT_EQ(wrong, 0) << Shielded();
    EXPECT_TRUE(Await([&] {
        const auto alarms = agent_.JsonLines({"alarms", "--json", "--limit", "1000"});
        return alarms.size() >= kPages;
    })) << agent_.JsonLines({"alarms", "--json", "--limit", "1000"}).size();
}

// Wrong copies must not become an outage.
TEST_F(Shielding, TooManyPagesThatCannotBeHealed_AreOnlyCounted) {
    constexpr int kPages = 30;
    const auto page = [](int at) { return "page" + std::to_string(at) + ".html"; };
    for (int at = 0; at < kPages; ++at) site_.Write(page(at), ProtectedSite::Good(page(at)));
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    int refused = 0;
    for (int at = 0; at < kPages; ++at) {
        std::ofstream(backup_.Path() + site_.Path(page(at)), std::ios::app) << "wrong";
        Replace(page(at), "defaced\n");
        const int file = ::open(site_.Path(page(at)).c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0) ++refused;
        ::close(file);
    }
    EXPECT_EQ(refused, 20);
    EXPECT_EQ(Shielded()["in_force"], "monitor") << Shielded();
    EXPECT_TRUE(Await([&] {
        return agent_.Ctl({"alarms"}).out.find("only monitors") != std::string::npos;
    })) << agent_.Ctl({"alarms"}).out;
}

TEST_F(Shielding, ModesAndPauses_DecideWhatVisitorsSee) {
    ASSERT_NO_FATAL_FAILURE(StartShield("deny"));
    const std::string good = Good();
    Replace("index.html", "defaced\n");
    EXPECT_NE(TempDir::Read(Page()), "defaced\n");
    EXPECT_TRUE(Await([&] { return TempDir::Read(Page()) == good; }));
    ASSERT_EQ(agent_.Ctl({"shield", site_.Path(), "monitor"}).exit_code, 0);
    ASSERT_TRUE(AwaitShield("monitor"));
    Replace("index.html", "defaced\n");
    EXPECT_TRUE(Await([&] { return TempDir::Read(Page()) == good; }));
    ASSERT_EQ(agent_.Ctl({"shield", site_.Path(), "heal"}).exit_code, 0);
    ASSERT_EQ(agent_.Ctl({"pause", site_.Path()}).exit_code, 0);
    EXPECT_EQ(Shielded()["in_force"], "off");
    Replace("index.html", "paused\n");
    EXPECT_EQ(TempDir::Read(Page()), "paused\n");
    ASSERT_EQ(agent_.Ctl({"resume", site_.Path(), "--accept"}).exit_code, 0);
    ASSERT_TRUE(AwaitShield("heal")) << Shielded();
    EXPECT_EQ(TempDir::Read(Page()), "paused\n");
    EXPECT_EQ(agent_.Stop(), 0);
    ASSERT_TRUE(agent_.Start());
    EXPECT_TRUE(AwaitShield("heal")) << Shielded();
}

TEST_F(Shielding, SentryOfItsOwnUnit_ShieldsForAnAgentWithoutItsRights) {
    agent_.RunThrough({"/usr/bin/setpriv", "--bounding-set",
                       "-all,+chown,+dac_override,+fowner,+fsetid,+setfcap", "--inh-caps", "-all",
                       "--no-new-privs"});
    const pid_t sentry = StartSentry();
    ASSERT_NO_FATAL_FAILURE(StartShield("heal"));
    Visitor visitor(Page(), Good());
    Replace("index.html", "defaced\n");
    AwaitVisits(visitor);
    visitor.Stop();
    EXPECT_EQ(visitor.Tampered() + visitor.Errors() + visitor.Refused(), 0);
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", Page()); }));
    EXPECT_EQ(agent_.Stop(), 0);
    int status = -1;
    ::kill(sentry, SIGTERM);
    ASSERT_EQ(::waitpid(sentry, &status, 0), sentry);
    EXPECT_EQ(status, 0);
}

// The watchdog kills a guard that does not answer; the agent starts another.
TEST_F(Shielding, GuardThatStopsOrDies_NobodyWaitsForIt) {
    ASSERT_NO_FATAL_FAILURE(StartShield("heal", 200));
    for (const int signal : {SIGSTOP, SIGKILL}) {
        Replace("about.html", "defaced\n");
        Visitor visitor(Page(), Good());
        const pid_t guard = Guard();
        ASSERT_GT(guard, 1);
        ::kill(guard, signal);
        ASSERT_TRUE(Await([&] { return Guard() != guard && AwaitShield("heal"); }));
        visitor.Stop();
        EXPECT_LT(visitor.LongestMs(), test::Scaled(3000ms).count());
        EXPECT_EQ(visitor.Errors() + visitor.Refused() + visitor.Tampered(), 0);
    }
    EXPECT_GE(agent_.Status()["sentry"]["lost"].asInt(), 2);
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
