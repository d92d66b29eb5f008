// Starts the peers. Each peer's own output tells when it is ready.
#include "products/Peers.h"

#include <json/json.h>

#include <filesystem>

#include "sdk/text/JsonUtils.h"

namespace Bench {
namespace {

constexpr microseconds kPollInterval{1000};
constexpr char kEstablished[] = "Watches established";

Command PeerCommand(const Machine& machine, const Site& site, std::vector<std::string> arguments) {
    Command command;
    command.arguments = std::move(arguments);
    command.environment = PlainEnvironment(machine);
    command.output = site.scratch + "/out";
    command.error = site.scratch + "/err";
    return command;
}

Json::Value Array(const std::vector<Json::Value>& values) {
    Json::Value array(Json::arrayValue);
    for (const Json::Value& value : values) array.append(value);
    return array;
}

}  // namespace

bool Inotifywait::Start(const Site& site, const ProductSettings& settings) {
    Command command = PeerCommand(
        machine_, site,
        {kInotifywait, "-m", "-r", "-e", "modify,attrib,create,delete,move", site.live});
    command.output.clear();
    const auto start = Clock::now();
    main_ = Child::Start(command);
    const bool ready = WaitUntil(settings.deadline, kPollInterval, [&] {
        return !Runs() || ReadFile(command.error).find(kEstablished) != std::string::npos;
    });
    return (ready && Runs()) ? Ready(start) : Fail(ReadFile(command.error));
}

bool InotifywaitLoop::Start(const Site& site, const ProductSettings& settings) {
    const auto start = Clock::now();
    main_ = Child::Start(PeerCommand(machine_, site,
                                     {machine_.peers + "/inotifywait-loop.sh", site.live, site.good,
                                      site.scratch, settings.ignored}));
    const bool ready = WaitUntil(settings.deadline, kPollInterval, [&] {
        const std::string output = ReadFile(site.scratch + "/watches");
        return !Runs() || output.find(kEstablished) != std::string::npos;
    });
    return (ready && Runs()) ? Ready(start) : Fail(ReadFile(site.scratch + "/watches"));
}

std::string Lsyncd::Name() const {
    switch (way_) {
        case Way::kFile:
            return "lsyncd";
        case Way::kPool:
            return "lsyncd, 8 processes";
        case Way::kBatch:
            break;
    }
    return "lsyncd, batching";
}

bool Lsyncd::Start(const Site& site, const ProductSettings& settings) {
    Command command = PeerCommand(
        machine_, site, {"/usr/bin/lsyncd", "-log", "scarce", machine_.peers + "/lsyncd.lua"});
    const char* way = way_ == Way::kFile ? "file" : way_ == Way::kPool ? "pool" : "batch";
    for (const std::string& variable :
         {"BENCH_LIVE=" + site.live, "BENCH_GOOD=" + site.good, "BENCH_FOLDER=" + site.scratch,
          std::string("BENCH_WAY=") + way, "BENCH_EXCLUDED=" + settings.ignored}) {
        command.environment.push_back(variable);
    }
    const auto start = Clock::now();
    main_ = Child::Start(command);
    const std::string mark = site.scratch + "/watches";
    const bool ready = WaitUntil(settings.deadline, kPollInterval,
                                 [&] { return !Runs() || std::filesystem::exists(mark); });
    return (ready && Runs()) ? Ready(start) : Fail(ReadFile(command.error));
}

bool Watchman::Start(const Site& site, const ProductSettings& settings) {
    folder_ = site.scratch;
    // Keeps the default settle time of 20 ms: with 1 ms watchman missed most of a burst on a busy
    // machine.
    const std::string config = folder_ + "/watchman.json";
    WriteText(config, R"({"idle_reap_age_seconds": 0})");
    Command command =
        PeerCommand(machine_, site,
                    {"/usr/bin/watchman", "--foreground", "--sockname=" + folder_ + "/sock",
                     "--logfile=" + folder_ + "/watchman.log", "--pidfile=" + folder_ + "/pid",
                     "--statefile=" + folder_ + "/state", "--no-save-state"});
    command.environment.push_back("WATCHMAN_CONFIG_FILE=" + config);
    main_ = Child::Start(command);
    const bool answers = WaitUntil(milliseconds(10000), milliseconds(20), [&] {
        return !Runs() ||
               Ask(R"(["version"])", milliseconds(2000)).find("version") != std::string::npos;
    });
    if (!answers || !Runs()) return Fail("it does not answer: " + ReadFile(command.error));
    const auto start = Clock::now();
    Json::Value patience;
    patience["sync_timeout"] = static_cast<Json::Int64>(settings.deadline.count());
    Ask(SDK::JsonUtils::JsonToString(Array({"watch", site.live})), settings.deadline);
    const std::string clock =
        Ask(SDK::JsonUtils::JsonToString(Array({"clock", site.live, patience})), settings.deadline);
    if (clock.find("\"clock\"") == std::string::npos) return Fail("not ready: " + clock);
    Ready(start);
    return SetTrigger(site, settings) || Fail("it takes no trigger");
}

bool Watchman::SetTrigger(const Site& site, const ProductSettings& settings) const {
    Json::Value trigger;
    trigger["name"] = "restore";
    trigger["expression"] = Array({"true"});
    if (!settings.ignored.empty()) {
        trigger["expression"] = Array({"not", Array({"match", "*" + settings.ignored})});
    }
    trigger["stdin"] = "NAME_PER_LINE";
    trigger["command"] = Array({machine_.peers + "/watchman-restore.sh", site.live, site.good});
    const std::string answer = Ask(
        SDK::JsonUtils::JsonToString(Array({"trigger", site.live, trigger})), settings.deadline);
    return answer.find("triggerid") != std::string::npos;
}

std::string Watchman::Ask(const std::string& request, milliseconds deadline) const {
    const std::string question = folder_ + "/question";
    const std::string answer = folder_ + "/answer";
    WriteText(question, request + "\n");
    Command command;
    command.arguments = {"/usr/bin/watchman", "--sockname=" + folder_ + "/sock",
                         "--no-spawn",        "--no-local",
                         "--no-pretty",       "-j"};
    command.environment = PlainEnvironment(machine_);
    command.input = question;
    command.output = answer;
    command.error = folder_ + "/answer.err";
    return Run(command, deadline) == 0 ? ReadFile(answer) : "";
}

}  // namespace Bench
