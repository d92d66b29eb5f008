// Measures a fleet on this machine: bench/fleet.sh builds and runs it. The simulated hosts are
// those of tests/fleet/simulator; broker, collector and databases are the real ones.
#include <sdk/text/JsonUtils.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <thread>

#include "service/Intake.h"
#include "simulator/SimulatedFleet.h"
#include "support/AgentProcess.h"
#include "support/Postgres.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double SecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

void Say(const std::string& what, double value, const std::string& unit) {
    std::printf("%-60s %10.2f %s\n", what.c_str(), value, unit.c_str());
    std::fflush(stdout);
}

struct Options {
    int hosts = 5000;
    double rate = 1000;
    int seconds = 60;
    int outage_seconds = 60;
    int reports = 50000;
    int rest_seconds = 20;
};

/// The place of the database, which keeps what it commits also after a loss of power.
class Place {
  public:
    explicit Place(bool is_postgres) {
        if (is_postgres) server_.emplace(test::Postgres::Disk::kSafe);
        if (server_) server_->Start();
    }
    bool IsPostgres() const { return server_.has_value(); }
    std::string Name() const { return server_ ? "PostgreSQL" : "SQLite"; }
    test::Postgres& Server() { return *server_; }
    Json::Value Config() const {
        return server_ ? server_->Config() : Json::Value(dir_.Path("fleet.db"));
    }
    Database::Location Location() const {
        return server_ ? server_->Location() : Database::Location(dir_.Path("fleet.db"));
    }

  private:
    test::TempDir dir_;
    std::optional<test::Postgres> server_;
};

/// The collector's part alone: reports of 200 hosts, in batches as the broker would hand them over.
int MeasureIntake(const Options& options, bool is_postgres) {
    constexpr int kHosts = 200;
    constexpr int kBatch = 1000;
    const Place place(is_postgres);
    Collector::FleetStore store;
    Collector::CollectorSettings settings;
    Collector::Intake intake(store, settings);
    if (!store.Open(place.Location()) || !intake.Load()) return 1;
    std::vector<std::int64_t> seqs(kHosts, 0);
    std::vector<Collector::Reply> replies;
    const auto begin = Clock::now();
    for (int i = 0; i < options.reports; ++i) {
        const std::string id = "host-" + std::to_string(i % kHosts);
        Fleet::Report report;
        report.stream = "fleet-" + id;
        report.acknowledged = report.previous = seqs[static_cast<std::size_t>(i % kHosts)]++;
        report.seq = report.previous + 1;
        report.kind = "alarm";
        report.body = test::SimulatedHost::BodyOf(id, report.seq);
        intake.Add(Fleet::ToMessage(id, report));
        if ((i + 1) % kBatch == 0 && !intake.Store(i, replies)) return 1;
    }
    const auto stored = static_cast<double>(intake.Counters().stored);
    Say("collector alone into " + place.Name(), stored / SecondsSince(begin), "reports/s");
    return static_cast<int>(stored) == options.reports ? 0 : 1;
}

/// Nanoseconds that all threads of the process have run.
double RunTime(pid_t pid) {
    double sum = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        double time = 0;
        std::ifstream(task.path() / "schedstat") >> time;
        sum += time;
    }
    return sum;
}

class Scale {
  public:
    Scale(const Options& options, bool is_postgres)
        : options_(options),
          ids_(test::SimulatedFleet::MakeIds(options.hosts)),
          place_(is_postgres),
          broker_(ids_),
          collector_(broker_, place_.Config()),
          fleet_(broker_, ids_, 1) {}

    int Run() {
        if (!broker_.Start() || !collector_.Start()) return 1;
        if (!ConnectAll() || !Burst()) return 1;
        place_.IsPostgres() ? StopDatabaseUnderLoad() : KillUnderLoad();
        return Drain() && Verify() ? 0 : 1;
    }

  private:
    std::string Title(const std::string& text) const { return place_.Name() + ": " + text; }

    bool ConnectAll() {
        const auto begin = Clock::now();
        const bool good = fleet_.RunFor(60s, [&] { return fleet_.Connected() == ids_.size(); });
        Say(Title("all " + std::to_string(ids_.size()) + " hosts connected (TLS)"),
            SecondsSince(begin), "s");
        return good;
    }

    /// Every host has some reports at once, as after an outage.
    bool Burst() {
        constexpr std::int64_t kEach = 4;
        for (std::size_t i = 0; i < ids_.size(); ++i) fleet_.RaiseAt(i, kEach);
        const double before = RunTime(collector_.Pid());
        const auto begin = Clock::now();
        const bool good =
            fleet_.RunFor(60s, [&] { return fleet_.Acknowledged() == fleet_.Raised(); });
        const auto count = static_cast<double>(fleet_.Raised());
        Say(Title("burst through broker and collector"), count / SecondsSince(begin), "reports/s");
        Say(Title("processor time of the collector in the burst"),
            (RunTime(collector_.Pid()) - before) / 1e3 / count, "us/report");
        fleet_.TakeLatencies();
        return good;
    }

    void Load(double seconds) {
        fleet_.SetRate(options_.rate);
        fleet_.RunFor(std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
    }

    void SayLatencies(const std::string& when) {
        const std::vector<std::int64_t> all = fleet_.TakeLatencies();
        if (all.empty()) return;
        const auto at = [&](double part) {
            return static_cast<double>(
                all[static_cast<std::size_t>(part * static_cast<double>(all.size() - 1))]);
        };
        Say(Title("alarm to acknowledgement, median, " + when), at(0.5), "ms");
        Say(Title("alarm to acknowledgement, 99 %, " + when), at(0.99), "ms");
        Say(Title("alarm to acknowledgement, longest, " + when), at(1), "ms");
    }

    void KillUnderLoad() {
        Load(options_.seconds / 2.0);
        SayLatencies("undisturbed");
        collector_.Kill();
        Load(1);
        collector_.Start();
        Load(options_.seconds / 4.0);
        broker_.Kill();
        Load(1);
        broker_.Start();
        const auto begin = Clock::now();
        Load(options_.seconds / 4.0);
        fleet_.RunFor(60s, [&] { return fleet_.Connected() == ids_.size(); });
        Say(Title("hosts are back after kill -9 of the broker, at most"), SecondsSince(begin), "s");
    }

    void StopDatabaseUnderLoad() {
        Load(options_.seconds / 4.0);
        SayLatencies("undisturbed");
        place_.Server().Stop();
        Load(options_.outage_seconds);
        place_.Server().Start();
    }

    bool Drain() {
        fleet_.SetRate(0);
        const std::int64_t before = fleet_.Acknowledged();
        const auto begin = Clock::now();
        const bool good =
            fleet_.RunFor(120s, [&] { return fleet_.Acknowledged() == fleet_.Raised(); });
        const std::int64_t drained = fleet_.Acknowledged() - before;
        Say(Title("reports that waited at the end of the load"), static_cast<double>(drained), "");
        Say(Title("stored through broker and collector"),
            static_cast<double>(drained) / SecondsSince(begin), "reports/s");
        return good;
    }

    bool Verify() {
        Collector::FleetStore store;
        if (!store.OpenExisting(place_.Location())) return false;
        const std::string fault = fleet_.FaultIn(store);
        std::cout << Title(std::to_string(fleet_.Raised()) + " alarms, ")
                  << (fault.empty() ? "each stored once and in order" : "FAULT: " + fault)
                  << std::endl;
        return fault.empty();
    }

    const Options options_;
    const std::vector<std::string> ids_;
    Place place_;
    test::Broker broker_;
    test::CollectorProcess collector_;
    test::SimulatedFleet fleet_;
};

/// KiB of memory that the process shares with no other.
double PrivateMemory(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double sum = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("Private_", 0) == 0) sum += std::stod(line.substr(line.find(':') + 1));
    }
    return sum;
}

void JoinFleet(const test::AgentProcess& agent, const test::Broker& broker, const std::string& id) {
    const std::string file = agent.Path("conf/agent.json");
    const std::string text = test::TempDir::Read(file);
    Json::Value conf;
    SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), conf);
    conf["fleet"]["broker"] = broker.JsonOf(id);
    std::ofstream(file, std::ios::trunc) << SDK::JsonUtils::JsonToString(conf);
    std::filesystem::create_directories(agent.Path("data"));
    std::ofstream(agent.Path("data/agent_id")) << id << "\n";
}

/// Two agents at rest beside each other, one of them in a fleet.
int MeasureRest(const Options& options) {
    const std::string id = "5c7a3ad2-6a01-4d61-a8a1-2d9a41a7a001";
    test::Broker broker({id});
    test::CollectorProcess collector(broker);
    test::AgentProcess alone;
    test::AgentProcess member;
    JoinFleet(member, broker, id);
    if (!broker.Start() || !collector.Start() || !alone.Start() || !member.Start()) return 1;
    while (!member.Status()["fleet"]["connected"].asBool()) std::this_thread::sleep_for(100ms);
    std::this_thread::sleep_for(5s);
    const double before = RunTime(member.Pid()) - RunTime(alone.Pid());
    const auto begin = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(options.rest_seconds));
    const double used = RunTime(member.Pid()) - RunTime(alone.Pid()) - before;
    Say("fleet module at rest", used / 1e7 / SecondsSince(begin), "% of a core");
    Say("fleet module at rest", (PrivateMemory(member.Pid()) - PrivateMemory(alone.Pid())) / 1024,
        "MiB");
    return 0;
}

/// Each host is a socket of this process and of the broker, which inherits the limit.
void AllowManySockets() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string what;
    CLI::App app("Measures a fleet");
    app.add_option("WHAT", what)
        ->required()
        ->check(CLI::IsMember({"intake", "rest", "sqlite", "postgres"}));
    app.add_option("--hosts", options.hosts);
    app.add_option("--rate", options.rate);
    app.add_option("--seconds", options.seconds);
    app.add_option("--outage", options.outage_seconds);
    app.add_option("--reports", options.reports);
    app.add_option("--rest", options.rest_seconds);
    CLI11_PARSE(app, argc, argv);
    AllowManySockets();
    if (what == "intake") return MeasureIntake(options, false) + MeasureIntake(options, true);
    if (what == "rest") return MeasureRest(options);
    return Scale(options, what == "postgres").Run();
}
