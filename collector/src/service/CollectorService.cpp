// Owns the connection, the batches and the clock of the service. Must not decide what is stored
// (Intake does).
#include "service/CollectorService.h"

#include <fleet/Topics.h>
#include <poll.h>
#include <sdk/files/FileUtils.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <utility>

#include "base/ServiceLog.h"
#include "service/Facts.h"
#include "service/FleetMetrics.h"

namespace Collector {

namespace {

constexpr std::chrono::milliseconds kPass{500};
constexpr std::int64_t kGatherMs = 10;
constexpr std::int64_t kGatherLoadMs = 50;  ///< larger batches cost less a report
constexpr std::int64_t kFirstRetryMs = 500;
constexpr std::int64_t kMostRetryMs = 15'000;
constexpr std::int64_t kConnectMs = 20'000;
constexpr std::int64_t kLastedMs = 5'000;
constexpr std::int64_t kRolloutsEveryMs = 500;
constexpr std::int64_t kPruneEveryMs = 10'000;
constexpr std::int64_t kMetricsEveryMs = 30'000;

std::int64_t EpochMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::int64_t NowSeconds() {
    return EpochMs() / 1000;
}

std::int64_t MonotonicMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// A descriptor that is readable when the process must stop.
SDK::FileDescriptor StopSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return SDK::FileDescriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

std::string ClientId() {
    std::array<char, 256> name{};
    ::gethostname(name.data(), name.size() - 1);
    return std::string("sentrel-collector-") + name.data() + "-" + std::to_string(::getpid());
}

}  // namespace

CollectorService::CollectorService(CollectorSettings settings)
    : settings_(std::move(settings)),
      intake_(store_, settings_),
      rollouts_(rollout_store_, {},
                [this](const Fleet::Message& message) { return broker_->Publish(message); }),
      access_(NowSeconds),
      backoff_(kFirstRetryMs, kMostRetryMs) {}

int CollectorService::Run() {
    ::umask(027);
    signals_ = StopSignals();
    if (!OpenStore() || !StartConsole() || !StartNotifier()) return 1;
    Log(Severity::kNotice, "the collector starts; database " + settings_.database.Text());
    ::sd_notify(0, "READY=1");
    do {
        RunConnection();
        if (!intake_.IsEmpty()) StoreAndAnswer();
        broker_.reset();
        listening_ = false;
        SayAlive();
        if (!settings_.metrics_file.empty()) WriteMetrics();
    } while (!Stopped(backoff_.WaitMs()));
    ::sd_notify(0, "STOPPING=1");
    console_.reset();
    notifier_.reset();
    store_.SetFact(kAliveFact, 0);
    Log(Severity::kNotice, "the collector stops");
    return 0;
}

bool CollectorService::OpenStore() {
    if (store_.Open(settings_.database) && intake_.Load() &&
        rollout_store_.Open(settings_.database)) {
        return true;
    }
    Log(Severity::kError,
        "cannot use the database " + settings_.database.Text() + ": " + store_.Error());
    return false;
}

bool CollectorService::StartConsole() {
    if (settings_.console.port == 0) return true;
    Console::ConsoleServer::Options options;
    options.address = settings_.console.address;
    options.port = static_cast<unsigned short>(settings_.console.port);
    options.certificate = settings_.console.certificate;
    options.key = settings_.console.key;
    options.names = settings_.console.names;
    console_ = std::make_unique<Console::ConsoleServer>(options, access_, backend_);
    std::string error;
    if (access_.Open(settings_.database, error) && backend_.Open(settings_.database, error) &&
        console_->Start(error)) {
        Log(Severity::kNotice, "the console is at " + console_->Url());
        return true;
    }
    Log(Severity::kError, "the console cannot start: " + error);
    return false;
}

bool CollectorService::StartNotifier() {
    if (settings_.notify.isNull()) return true;
    Notify::Settings settings;
    std::string error;
    if (MakeNotifySettings(settings_.notify, settings, error)) {
        notifier_ = std::make_unique<FleetNotifier>(settings, settings_.database);
        if (notifier_->Start([this] { return is_well_.load(); }, error)) return true;
    }
    Log(Severity::kError, "notifications cannot start: " + error);
    return false;
}

bool CollectorService::Stopped(std::int64_t wait_ms) const {
    pollfd source{signals_.Get(), POLLIN, 0};
    return ::poll(&source, 1, static_cast<int>(wait_ms)) > 0;
}

void CollectorService::RunConnection() {
    std::string error;
    const std::int64_t begin_ms = MonotonicMs();
    bool good = Begin(error);
    while (good && !Stopped(0)) {
        good = Pass(error);
        if (!good || listening_) continue;
        if (broker_->IsConnected()) {
            good = Listen();
        } else if (MonotonicMs() - begin_ms > kConnectMs) {
            error = "the broker does not answer";
            good = false;
        }
    }
    if (good) {
        broker_->Disconnect();
        return;
    }
    const bool lasted = listening_ && MonotonicMs() - begin_ms > kLastedMs;
    backoff_.Ended(lasted);
    Log(Severity::kError, "broker " + settings_.broker.host + ": " + error);
}

bool CollectorService::Begin(std::string& error) {
    broker_ = std::make_unique<Fleet::BrokerClient>(
        settings_.broker, ClientId(), Fleet::kMaxBodyBytes,
        [this](Fleet::Message&& message) { intake_.Add(std::move(message)); });
    return broker_->Connect(error);
}

/// Reports are shared among the collectors of a group; states are not, since the broker sends
/// retained messages to unshared subscriptions only.
bool CollectorService::Listen() {
    if (!broker_->Subscribe("$share/" + settings_.group + "/sentrel/+/report/+") ||
        !broker_->Subscribe("sentrel/+/state") ||
        !broker_->Subscribe("sentrel/+/policy/+/result") ||
        !broker_->Subscribe("sentrel/+/act/+/result")) {
        return false;
    }
    listening_ = true;
    listening_since_ms_ = EpochMs();
    alive_due_ms_ = 0;
    rollouts_.Restart(listening_since_ms_);
    Log(Severity::kNotice, "connected to the broker " + settings_.broker.host);
    Reply(intake_.AskForMissing());
    return true;
}

/// Waits for messages, gathers what arrives within some milliseconds, and stores it at once.
bool CollectorService::Pass(std::string& error) {
    bool good = broker_->Step(kPass, signals_.Get(), error);
    const std::int64_t begin_ms = MonotonicMs();
    while (good && !intake_.IsEmpty() && !intake_.IsFull()) {
        const std::int64_t gather_ms = intake_.IsLarge() ? kGatherLoadMs : kGatherMs;
        const std::int64_t left_ms = begin_ms + gather_ms - MonotonicMs();
        if (left_ms <= 0) break;
        good = broker_->Step(std::chrono::milliseconds(left_ms), signals_.Get(), error);
    }
    if (!intake_.IsEmpty()) StoreAndAnswer();
    Housekeeping();
    return good;
}

void CollectorService::StoreAndAnswer() {
    std::vector<Collector::Reply> replies;
    const bool is_stored = intake_.Store(EpochMs(), replies);
    if (is_stored) Reply(replies);
    NoteStore(is_stored);
}

/// Hosts that had no answer during an outage of the database wait longer and longer before they
/// send again: they are asked to send at its end.
void CollectorService::NoteStore(bool is_working) {
    if (is_working == is_storing_) return;
    is_storing_ = is_working;
    if (!is_working) return Log(Severity::kError, "cannot store: " + intake_.Error());
    Log(Severity::kNotice, "the database stores again");
    if (listening_) Reply(intake_.AskForMissing());
}

void CollectorService::Reply(const std::vector<Collector::Reply>& replies) {
    for (const Collector::Reply& reply : replies) {
        broker_->Publish(
            {Fleet::AckTopic(reply.agent_id), Fleet::ToText(reply.acknowledgement), false});
    }
}

void CollectorService::Housekeeping() {
    const std::int64_t now_ms = MonotonicMs();
    if (now_ms >= alive_due_ms_) {
        alive_due_ms_ = now_ms + std::min(kAliveEveryMs, settings_.SilentAfterMs() / 3);
        SayAlive();
        if (notifier_) notifier_->LogChanges();
        if (listening_) NoteStore(intake_.CheckSilence(EpochMs(), listening_since_ms_));
    }
    if (!settings_.metrics_file.empty() && now_ms >= metrics_due_ms_) {
        metrics_due_ms_ = now_ms + kMetricsEveryMs;
        WriteMetrics();
    }
    if (listening_ && now_ms >= rollouts_due_ms_) {
        rollouts_.Work(EpochMs());
        // Many hosts take long: nine tenths of the thread's time stay for what hosts send.
        const std::int64_t ended_ms = MonotonicMs();
        rollouts_due_ms_ = ended_ms + std::max(kRolloutsEveryMs, 9 * (ended_ms - now_ms));
    }
    if (now_ms >= prune_due_ms_) {
        prune_due_ms_ = now_ms + kPruneEveryMs;
        NoteStore(intake_.Prune(EpochMs()));
    }
}

void CollectorService::SayAlive() {
    is_well_ = listening_ && is_storing_;
    const bool good = store_.Begin() && store_.SetFact(kAliveFact, EpochMs()) &&
                      store_.SetFact(kListeningFact, listening_ ? listening_since_ms_ : 0) &&
                      SaveCounters(store_, intake_.Counters()) && store_.Commit();
    if (!good) store_.Rollback();
}

/// A program that reads the file never sees a part of it.
void CollectorService::WriteMetrics() {
    std::string text;
    const bool good = FormatMetrics(store_, intake_.Counters(), text) &&
                      SDK::FileUtils::WriteFile(settings_.metrics_file, text, false) == 0;
    if (good != has_metrics_) {
        Log(good ? Severity::kNotice : Severity::kError,
            (good ? "metrics are written to " : "cannot write metrics to ") +
                settings_.metrics_file);
    }
    has_metrics_ = good;
}

}  // namespace Collector
