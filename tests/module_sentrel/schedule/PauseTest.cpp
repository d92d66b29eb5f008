// An update of a site during a pause of the schedule.
#include <framework/Task.h>
#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <fstream>

#include "base/WorkClock.h"
#include "fixtures/Protection.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::atomic<std::time_t> g_now{0};

class Pause : public test::Protection {
  protected:
    Pause() {
        SetTime(7, 59);
        Engine::WorkClock::SetSource([] { return g_now.load(); });
        install_.log.Attach();
    }
    ~Pause() override {
        engine_.Stop();
        Engine::WorkClock::SetSource(nullptr);
    }

    /// Sets a local time on a Sunday.
    static void SetTime(int hour, int minute) {
        std::tm sunday{};
        sunday.tm_year = 2026 - 1900;
        sunday.tm_mon = 10;
        sunday.tm_mday = 22;
        sunday.tm_hour = hour;
        sunday.tm_min = minute;
        sunday.tm_isdst = -1;
        g_now = std::mktime(&sunday);
    }
    /// Protects with a pause from 8 to 9. While `gate_` exists, backups wait for a line from it.
    void ProtectWithPause() {
        Json::Value policy = test::Installation::Policy(install_.WriteScript(
            "gated_rsync", "case \"$*\" in *' -R '*) [ -p " + gate_ + " ] && read x <" + gate_ +
                               ";; esac\nexec /usr/bin/rsync \"$@\""));
        policy["content"]["distime_enable"] = true;
        policy["content"]["disable_week"].append(0);
        policy["content"]["disable_timerange"].append("8:00-8:59");
        Protect(policy);
        AwaitBackup();
    }
    void AwaitWorking(bool working) {
        EXPECT_TRUE(test::WaitFor(
            [&] { return Ask("status.sentrel")["protection"]["working"].asBool() == working; },
            20s));
    }
    /// Replaces, adds and deletes a file, then moves a tree of two directories in.
    void Update() {
        site_.Write("index.html", "update");
        site_.Write("fresh.html", "fresh");
        fs::remove(site_.Path("gone.html"));
        staging_.Write("new/deep/page.html", "deep");
        fs::rename(staging_.Path("new"), site_.Path("new"));
    }
    /// The agent has read, delivered and handled all events of the update.
    bool IsUpdateHandled() {
        const Json::Value path = Ask("status.sentrel")["protected_paths"][0];
        const bool is_read = path["watched_directories"].asUInt() == 4 && path["state"] == "ready";
        return is_read && Ask("status.filenotify")["filenotify"]["pending_events"].asUInt() == 0 &&
               engine_.FindTask("sentrel_inotify_task")->QueueLength() == 0;
    }
    void ExpectUpdated() const {
        EXPECT_EQ(test::TempDir::Read(site_.Path("index.html")), "update");
        EXPECT_EQ(test::TempDir::Read(site_.Path("fresh.html")), "fresh");
        EXPECT_EQ(test::TempDir::Read(site_.Path("new/deep/page.html")), "deep");
        EXPECT_FALSE(fs::exists(site_.Path("gone.html")));
    }

    const std::string gate_ = install_.dir.Path("gate");
    const test::TempDir staging_;
};

TEST_F(Pause, Update_BecomesTheNewGoodState) {
    const std::string index = site_.Path("index.html");
    site_.Write("gone.html", "gone");
    ProtectWithPause();
    site_.Write("index.html", "defaced");
    EXPECT_TRUE(Becomes(index, "welcome"));
    EXPECT_EQ(Alarm(index)["outcome"], "restored");

    SetTime(8, 0);
    AwaitWorking(false);
    EXPECT_EQ(Ask("status.sentrel")["schedule"]["text"], "paused until 09:00");
    const Json::Value before = Alarms();
    Update();
    EXPECT_TRUE(test::WaitFor([this] { return IsUpdateHandled(); }, 20s));
    ExpectUpdated();

    ASSERT_EQ(::mkfifo(gate_.c_str(), 0600), 0);
    SetTime(9, 0);
    AwaitWorking(true);
    EXPECT_EQ(Alarms(), before);
    const Json::Value backup = Ask("status.sentrel")["backup"];
    EXPECT_TRUE(backup["local_pending"].asBool() && backup["remote_pending"].asBool());
    // Events before the backup of the update, while the copies are old.
    ::chmod(index.c_str(), 0600);
    fs::last_write_time(site_.Path("new"), fs::file_time_type::clock::now());
    ::chmod(site_.Path("fresh.html").c_str(), 0600);
    EXPECT_EQ(Alarm(site_.Path("fresh.html"))["outcome"], "reported only");
    ExpectUpdated();
    std::ofstream(gate_) << "go\n";
    fs::remove(gate_);
    AwaitBackup();

    SetTime(9, 2);  // later than the merge time of alarms
    site_.Write("index.html", "defaced again");
    EXPECT_TRUE(Becomes(index, "update"));
    EXPECT_TRUE(test::WaitFor([&] { return FindAlarm(index)["outcome"] == "restored"; }, 20s));
    site_.Write("gone.html", "back");
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(site_.Path("gone.html")); }, 20s));
    fs::rename(site_.Path("new"), staging_.Path("taken"));
    EXPECT_TRUE(Becomes(site_.Path("new/deep/page.html"), "deep"));
    ExpectUpdated();
    for (const char* text : {"is_run true change to false", "is_run false change to true"}) {
        EXPECT_EQ(install_.Traces(text), 1) << text;
    }
}

}  // namespace
