#include "StormRun.h"

#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "TreeMutator.h"
#include "support/WaitFor.h"

namespace test {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;
constexpr auto kAlarmDeadline = 5s;
constexpr std::size_t kMaxLeftOutShare = 5;  // at most a fifth
constexpr const char* kModeNames[] = {"restore", "monitor", "overflow", "slow"};

std::string Shown(const std::string& path) {
    std::ostringstream text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        byte<' ' || byte> '~' ? text << "\\x" << std::hex << int{byte} : text << c;
    }
    return text.str();
}

/// An rsync that takes longer.
void MakeSlow(Json::Value& policy, const TempDir& scratch) {
    const std::string script =
        // The library is for rsync, and the shell does not hand it on.
        scratch.Write("slow",
                      "#!/bin/sh\nsleep 0.1\n"
                      "LD_PRELOAD=${0%/*}/../lib/librsync_preload.so exec /usr/bin/rsync \"$@\"\n");
    std::string sha256;
    SDK::FileUtils::GetFileSha256(script, sha256, 1L << 20);
    SetRsync(policy, "file://" + script, sha256);
}

}  // namespace

StormRun::Mode StormRun::ModeOf(const std::string& name) {
    int mode = 0;
    while (mode < 3 && name != kModeNames[mode]) ++mode;
    return static_cast<Mode>(mode);
}

StormRun::StormRun(AgentProcess& agent, std::uint64_t seed, Mode mode, int steps)
    : agent_(agent),
      seed_(seed),
      mode_(mode),
      steps_(steps),
      site_(seed),
      feed_(agent.Path("run/agent.sock")) {}

void StormRun::Prepare(const AgentProcess& agent) {
    const std::string file = agent.Path("conf/agent.json");
    const std::string text = TempDir::Read(file);
    Json::Value config;
    SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), config);
    config["log"]["level"] = "debug";
    std::ofstream(file) << SDK::JsonUtils::JsonToString(config);
}

bool StormRun::Run() {
    if (!Protect()) return false;
    MutateAll();
    const auto end = Clock::now();
    if (mode_ != Mode::kMonitor) AwaitAgreement();
    AwaitAlarms();
    settled_after_ = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - end);
    const std::string change = oracle_->ChangeBeside();
    if (!change.empty()) Fault("changed: " + Shown(change));
    if (oracle_->LeftOut() * kMaxLeftOutShare > oracle_->Objects()) Fault("too much is left out");
    return faults_.empty();
}

bool StormRun::Protect() {
    Json::Value policy = ProtectionPolicy(
        {{site_.Site(), site_.Backup(), true, {std::string(TestSite::kExcluded)}}});
    policy["content"]["monitor_only"] = mode_ == Mode::kMonitor;
    if (mode_ == Mode::kSlow) MakeSlow(policy, scratch_);
    std::string error;
    if (agent_.Apply(policy) != 0 || !feed_.Start(error) ||
        !WaitFor([&] { return agent_.IsProtecting(); }, Scaled(kDeadline))) {
        Fault("the site could not be protected: " + error);
        return false;
    }
    oracle_.emplace(site_);
    const Differences early = oracle_->FindInSite();
    if (!early.empty()) Fault("differs before the storm: " + Shown(early.begin()->first));
    return early.empty();
}

void StormRun::MutateAll() {
    Random random(seed_);
    const int bursts = 1 + static_cast<int>(random() % 4);
    const bool stalled = mode_ == Mode::kOverflow;
    const std::uint64_t overflows = stalled ? Counter("overflows") : 0;
    if (stalled) {
        agent_.Signal(SIGSTOP);
        ::waitpid(agent_.Pid(), nullptr, WUNTRACED);
        TreeMutator(site_, seed_).Flood();
    }
    for (int burst = 0; burst < bursts; ++burst) {
        Burst(random(), 1 + static_cast<int>(random() % 4), steps_ / bursts);
        if (!stalled && Once(random, 2)) WaitForQuiet();
    }
    const Differences at_end = oracle_->FindInSite();
    if (stalled) {
        // What came and went meanwhile nobody can know.
        differed_ = at_end;
        agent_.Signal(SIGCONT);
        if (!WaitForQuiet() || Counter("overflows") == overflows) Fault("nothing has overflowed");
    }
}

void StormRun::Burst(std::uint64_t seed, int mutators, int steps) {
    std::vector<pid_t> running;
    for (int mutator = 0; mutator < mutators; ++mutator) {
        const pid_t child = ::fork();
        if (child == 0) {
            TreeMutator at_work(site_, seed + static_cast<std::uint64_t>(mutator));
            for (int step = 0; step < steps / mutators; ++step) at_work.Act();
            ::_exit(0);
        }
        if (child > 0) running.push_back(child);
    }
    while (!running.empty()) {
        if (mode_ != Mode::kOverflow) Sample();
        if (::waitpid(running.back(), nullptr, WNOHANG) != 0) running.pop_back();
    }
}

void StormRun::Sample() {
    Differences now = oracle_->FindInSite();
    for (const auto& [path, words] : now) {
        const auto before = last_sample_.find(path);
        if (before != last_sample_.end() && before->second == words) differed_.insert(*before);
    }
    last_sample_ = std::move(now);
}

/// Waits until the agent has caught up; false when it has not in time.
bool StormRun::WaitForQuiet() {
    const std::string cookie = site_.Site() + "/cookie" + std::to_string(cookies_++);
    std::ofstream(cookie) << "x";
    const auto answered = [&] {
        return FetchAlarms() && alarms_.count(cookie) > 0 &&
               (mode_ == Mode::kMonitor || !fs::exists(cookie));
    };
    if (WaitFor(answered, Scaled(kDeadline))) return true;
    Fault("no answer to " + cookie);
    return false;
}

/// Until the site is as its copy, and nothing is restored any more.
void StormRun::AwaitAgreement() {
    Differences left;
    const bool agrees = WaitFor(
        [&] {
            Sample();
            left = last_sample_;
            return left.empty();
        },
        Scaled(kDeadline));
    std::uint64_t restores = 0;
    const bool rests = agrees && WaitFor(
                                     [&] {
                                         const std::uint64_t before = restores;
                                         restores = Counter("restores_done");
                                         return before == restores || !WaitForQuiet();
                                     },
                                     Scaled(kDeadline));
    if (rests) left = oracle_->FindInSite();
    if (agrees && !rests) Fault("goes on restoring");
    for (const auto& [path, words] : left) Fault("differs: " + Shown(path) + ": " + Shown(words));
}

void StormRun::AwaitAlarms() {
    if (mode_ == Mode::kMonitor && WaitForQuiet()) differed_.merge(oracle_->FindInSite());
    std::vector<std::string> missing;
    const auto told = [&] {
        missing = oracle_->WithoutAlarm(differed_, alarms_);
        return missing.empty() || !FetchAlarms();
    };
    WaitFor(told, Scaled(kAlarmDeadline));
    for (const std::string& path : missing) {
        Fault("no alarm: " + Shown(path) + ": " + Shown(differed_[path]));
    }
}

bool StormRun::FetchAlarms() {
    std::string error;
    do {
        alarms_seen_ = feed_.Alarms().size();
        if (!feed_.Fetch(0ms, error)) return false;
        for (std::size_t at = alarms_seen_; at < feed_.Alarms().size(); ++at) {
            alarms_.insert(feed_.Alarms()[at].path);
        }
    } while (feed_.Alarms().size() > alarms_seen_);
    return true;
}

std::uint64_t StormRun::Counter(const std::string& name) const {
    return agent_.Status()["counters"][name].asUInt64();
}

std::string StormRun::Report(std::size_t faults) const {
    std::ostringstream text;
    text << "seed " << seed_ << " " << kModeNames[static_cast<int>(mode_)] << ": "
         << (faults_.empty() ? "ok" : "FAILED") << ", " << differed_.size() << " differed, "
         << alarms_.size() << " alarms, left out " << (oracle_ ? oracle_->LeftOut() : 0) << " of "
         << (oracle_ ? oracle_->Objects() : 0) << ", settled after " << settled_after_.count()
         << " ms";
    for (std::size_t at = 0; at < faults_.size() && at < faults; ++at) {
        text << "\n    " << faults_[at];
    }
    if (faults_.size() > faults) text << "\n    and " << faults_.size() - faults << " more";
    return text.str();
}

}  // namespace test
