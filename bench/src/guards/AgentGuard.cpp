// Owns one agent process and its installation below the site's scratch folder. The machine's own
// settings are shielded from it by bench/run.sh, not here.
#include "guards/AgentGuard.h"

#include <PolicyDocument.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>

#include "ctl/client/ControlClient.h"
#include "sdk/text/JsonUtils.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

constexpr int kAnswerSeconds = 60;
constexpr milliseconds kStartDeadline{30000};
constexpr microseconds kStatusStep{5000};
constexpr char kPolicies[] = "/v1/policies/sentrel_feature";
constexpr milliseconds kReportStep{20};
/// What makes a restore quick, by its switch below "sentrel" in conf/agent.json.
constexpr const char* kQuickening[] = {"rsync_preload", "restore_in_process"};
constexpr char kBackupFolder[] = "/backup";

/// One file of an alarm, kept where it says what changed.
void Note(const Json::Value& report, Reported& told) {
    const std::string text = SDK::JsonUtils::GetStringValue(report, "body", "");
    Json::Value body;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), body) != 0) return;
    for (const Json::Value& file : body["file_info"]) {
        const std::string path = SDK::JsonUtils::GetStringValue(file, "file_path", "");
        told.paths.insert(path);
        if (!SDK::JsonUtils::GetStringValue(file, "diff", "").empty() ||
            !SDK::JsonUtils::GetStringValue(file, "diff_attr", "").empty()) {
            told.with_difference.insert(path);
        }
    }
}

/// Words before a command that give it a /tmp of its own without a free byte.
std::vector<std::string> BehindFullTmp() {
    return {"/usr/bin/unshare",
            "--mount",
            "--propagation",
            "private",
            "--",
            "/bin/sh",
            "-c",
            "mount -t tmpfs -o size=64k none /tmp || exit 1\n"
            "head -c 1M /dev/zero >/tmp/full 2>/dev/null\n"
            "exec \"$0\""};
}

}  // namespace

std::string AgentGuard::Name() const {
    return quick_ ? "Sentrel" : "Sentrel, plain rsync";
}

/// The policy names a folder for the copies, in which each lies under its whole path.
std::string AgentGuard::GoodRoot(const Site& site) const {
    return site.scratch + kBackupFolder + "/tree" + site.live;
}

bool AgentGuard::HasPlainForm(const Machine& machine) {
    Json::Value config;
    const std::string text = ReadFile(machine.stage + "/conf/agent.json");
    return SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), config) == 0 &&
           config["sentrel"].isMember(kQuickening[0]);
}

bool AgentGuard::Configure() const {
    Json::Value config;
    const std::string file = install_ + "/conf/agent.json";
    const std::string text = ReadFile(file);
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), config) != 0) return false;
    for (const char* name : kQuickening) {
        if (config["sentrel"].isMember(name)) config["sentrel"][name] = quick_;
    }
    return WriteText(file, SDK::JsonUtils::JsonToString(config));
}

bool AgentGuard::Start(const Site& site, const GuardSettings& settings) {
    return StartAgent(site, settings.tmp_is_full) && Protect(site, settings);
}

/// The agent takes an installation and copies only where nobody but root can write, whoever has
/// built the stage and with whichever umask.
bool AgentGuard::Install(const Site& site) const {
    std::error_code error;
    fs::remove_all(install_, error);
    fs::copy(machine_.stage, install_, fs::copy_options::recursive, error);
    for (const char* folder : {"data", "log", "run"}) fs::remove_all(install_ + "/" + folder);
    const std::string backup = site.scratch + kBackupFolder;
    fs::create_directories(backup + "/tree");
    fs::permissions(backup, fs::perms::owner_all, error);
    return !error && Run({{"/bin/chmod", "-R", "go-w", install_}, {}, "", "", ""}) == 0;
}

bool AgentGuard::StartAgent(const Site& site, bool tmp_is_full) {
    install_ = site.scratch + "/agent";
    if (!Install(site) || !Configure()) return Fail("no installation in " + install_);
    Command command;
    if (tmp_is_full) command.arguments = BehindFullTmp();
    command.arguments.push_back(install_ + "/bin/morvane_agent");
    command.environment = PlainEnvironment(machine_);
    command.output = site.scratch + "/agent.out";
    command.error = site.scratch + "/agent.err";
    main_ = Child::Start(command);
    const bool answers =
        WaitUntil(kStartDeadline, kStatusStep, [&] { return !Runs() || !Status().isNull(); });
    return (answers && Runs()) || Fail("the agent does not answer: " + ReadFile(command.error));
}

std::string AgentGuard::Policy(const Site& site, const GuardSettings& settings) const {
    Demo::PolicyRequest request;
    request.tree = site.live;
    request.backup = site.scratch + kBackupFolder;
    request.rsync = fs::canonical(kRsync).string();
    if (!settings.ignored.empty()) request.excluded_suffixes = {settings.ignored};
    const std::string text = Demo::MakePolicy(request);
    Json::Value policy;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), policy) != 0) return {};
    policy["content"]["backup_type"] = settings.makes_copy ? 0 : 1;
    return SDK::JsonUtils::JsonToString(policy);
}

bool AgentGuard::Protect(const Site& site, const GuardSettings& settings) {
    const std::string policy = Policy(site, settings);
    const auto start = Clock::now();
    const Ctl::Answer answer =
        Ctl::ControlClient(Socket()).Send("PUT", kPolicies, policy, kAnswerSeconds);
    if (answer.status != 200) {
        return Fail("the policy was refused: " + SDK::JsonUtils::JsonToString(answer.body));
    }
    ready_ms_ = backup_ms_ = 0;
    const bool ready = WaitUntil(settings.deadline, kStatusStep, [&] {
        const Json::Value status = Status();
        const Json::Value& path = status["protected_paths"][0];
        if (ready_ms_ == 0 && path["path"] == site.live + "/" && path["state"] == "ready") {
            ready_ms_ = MsSince(start);
        }
        const bool copied = !status["backup"]["local_pending"].asBool();
        if (backup_ms_ == 0 && !path.isNull() && copied) backup_ms_ = MsSince(start);
        return ready_ms_ > 0 && (backup_ms_ > 0 || !settings.makes_copy);
    });
    if (!ready) return Fail("not ready at the deadline: " + SDK::JsonUtils::JsonToString(Status()));
    lasting_ = {main_.Pid()};
    return true;
}

void AgentGuard::Unprotect() {
    Ctl::ControlClient(Socket()).Send("PUT", kPolicies, R"({"enabled": false, "content": {}})",
                                      kAnswerSeconds);
}

void AgentGuard::Settle() {
    Guard::Settle();
    WaitUntil(kStartDeadline, kStatusStep,
              [&] { return Status()["filenotify"]["pending_events"].asInt64() == 0; });
}

Json::Value AgentGuard::Status() const {
    const Ctl::Answer answer =
        Ctl::ControlClient(Socket()).Send("GET", "/v1/status", "", kAnswerSeconds);
    return answer.kind == Ctl::Answer::Kind::kAnswered ? answer.body : Json::Value();
}

std::int64_t AgentGuard::LastReport() const {
    return Status()["reports"]["last_seq"].asInt64();
}

Reported AgentGuard::Since(std::int64_t report) const {
    Reported told;
    Collect(report, told);
    return told;
}

void AgentGuard::Collect(std::int64_t& report, Reported& told) const {
    while (true) {
        const Ctl::Answer answer = Ctl::ControlClient(Socket()).Send(
            "GET", "/v1/reports?kind=alarm&limit=1000&after=" + std::to_string(report), "",
            kAnswerSeconds);
        const Json::Value& reports = answer.body["reports"];
        if (answer.status != 200 || reports.empty()) return;
        for (const Json::Value& one : reports) {
            report = one["seq"].asInt64();
            Note(one, told);
        }
    }
}

/// Reads the alarms themselves only once there are as many, so that it costs the agent little.
bool AgentGuard::AwaitReports(std::int64_t report, const std::vector<std::string>& paths,
                              milliseconds deadline, Reported& told) const {
    const auto wanted = report + static_cast<std::int64_t>(paths.size());
    return WaitUntil(deadline, kReportStep, [&] {
        if (LastReport() < wanted) return false;
        Collect(report, told);
        return std::all_of(paths.begin(), paths.end(),
                           [&](const std::string& path) { return told.paths.count(path) > 0; });
    });
}

}  // namespace Bench
