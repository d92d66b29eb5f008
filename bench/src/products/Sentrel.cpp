// Owns one agent process and its installation in the site's scratch folder. bench/run.sh isolates
// the machine's settings, not this file.
#include "products/Sentrel.h"

#include <agent/PolicyDocument.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

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
/// The switches of the fast restore paths, in "sentrel" of conf/agent.json.
constexpr const char* kFastPaths[] = {"rsync_preload", "restore_in_process"};
constexpr char kBackupFolder[] = "/backup";

/// Adds the files of one alarm report.
void Note(const Json::Value& report, AlarmPaths& alarms) {
    const std::string text = SDK::JsonUtils::GetStringValue(report, "body", "");
    Json::Value body;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), body) != 0) return;
    for (const Json::Value& file : body["file_info"]) {
        const std::string path = SDK::JsonUtils::GetStringValue(file, "file_path", "");
        alarms.paths.insert(path);
        if (!SDK::JsonUtils::GetStringValue(file, "diff", "").empty() ||
            !SDK::JsonUtils::GetStringValue(file, "diff_attr", "").empty()) {
            alarms.with_difference.insert(path);
        }
    }
}

/// The words before a command that give it a full /tmp of its own.
std::vector<std::string> WithFullTmp() {
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

std::string Sentrel::Name() const {
    return is_fast_ ? "Sentrel" : "Sentrel, plain rsync";
}

/// Below the backup folder of the policy each copy has its full path.
std::string Sentrel::CopyRoot(const Site& site) const {
    return site.scratch + kBackupFolder + "/tree" + site.live;
}

bool Sentrel::CanDisableFastPaths(const Machine& machine) {
    Json::Value config;
    const std::string text = ReadFile(machine.stage + "/conf/agent.json");
    return SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), config) == 0 &&
           config["sentrel"].isMember(kFastPaths[0]);
}

bool Sentrel::Configure() const {
    Json::Value config;
    const std::string file = install_ + "/conf/agent.json";
    const std::string text = ReadFile(file);
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), config) != 0) return false;
    for (const char* name : kFastPaths) {
        if (config["sentrel"].isMember(name)) config["sentrel"][name] = is_fast_;
    }
    return WriteText(file, SDK::JsonUtils::JsonToString(config));
}

bool Sentrel::Start(const Site& site, const ProductSettings& settings) {
    return StartAgent(site, settings.tmp_is_full) && Protect(site, settings);
}

/// The agent accepts an installation and a backup folder only when no one but root can write there,
/// whatever the umask of the build was.
bool Sentrel::Install(const Site& site) const {
    std::error_code error;
    fs::remove_all(install_, error);
    fs::copy(machine_.stage, install_, fs::copy_options::recursive, error);
    for (const char* folder : {"data", "log", "run"}) fs::remove_all(install_ + "/" + folder);
    const std::string backup = site.scratch + kBackupFolder;
    fs::create_directories(backup + "/tree");
    fs::permissions(backup, fs::perms::owner_all, error);
    return !error && Run({{"/bin/chmod", "-R", "go-w", install_}, {}, "", "", ""}) == 0;
}

bool Sentrel::StartAgent(const Site& site, bool tmp_is_full) {
    install_ = site.scratch + "/agent";
    if (!Install(site) || !Configure()) return Fail("no installation in " + install_);
    Command command;
    if (tmp_is_full) command.arguments = WithFullTmp();
    command.arguments.push_back(install_ + "/bin/morvane_agent");
    command.environment = PlainEnvironment(machine_);
    command.output = site.scratch + "/agent.out";
    command.error = site.scratch + "/agent.err";
    main_ = Child::Start(command);
    const bool answers =
        WaitUntil(kStartDeadline, kStatusStep, [&] { return !Runs() || !Status().isNull(); });
    return (answers && Runs()) || Fail("the agent does not answer: " + ReadFile(command.error));
}

std::string Sentrel::Policy(const Site& site, const ProductSettings& settings) const {
    Demo::PolicyRequest request;
    request.tree = site.live;
    request.backup = site.scratch + kBackupFolder;
    request.rsync = fs::canonical(kRsync).string();
    if (!settings.ignored.empty()) request.excluded_suffixes = {settings.ignored};
    if (!settings.excluded_folder.empty()) request.excluded_subdirs = {settings.excluded_folder};
    const std::string text = Demo::MakePolicy(request);
    Json::Value policy;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), policy) != 0) return {};
    policy["content"]["backup_type"] = settings.makes_copy ? 0 : 1;
    return SDK::JsonUtils::JsonToString(policy);
}

bool Sentrel::Protect(const Site& site, const ProductSettings& settings) {
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
    permanent_ = {main_.Pid()};
    return true;
}

double Sentrel::ManifestMs() const {
    static const std::regex kRecord("is approved, listed in ([0-9]+) ms");
    std::ifstream log(install_ + "/log/agent.log");
    double result = -1;
    std::smatch found;
    for (std::string line; std::getline(log, line);) {
        if (std::regex_search(line, found, kRecord)) result = std::stod(found[1]);
    }
    return result;
}

void Sentrel::Unprotect() {
    Ctl::ControlClient(Socket()).Send("PUT", kPolicies, R"({"enabled": false, "content": {}})",
                                      kAnswerSeconds);
}

void Sentrel::Settle() {
    Product::Settle();
    WaitUntil(kStartDeadline, kStatusStep,
              [&] { return Status()["filenotify"]["pending_events"].asInt64() == 0; });
}

Json::Value Sentrel::Status() const {
    const Ctl::Answer answer =
        Ctl::ControlClient(Socket()).Send("GET", "/v1/status", "", kAnswerSeconds);
    return answer.kind == Ctl::Answer::Kind::kAnswered ? answer.body : Json::Value();
}

bool Sentrel::HasManifest() const {
    return Status()["protected_paths"][0]["baseline"]["generation"].asUInt() > 0;
}

Command Sentrel::VerifyCommand() const {
    return {
        {install_ + "/bin/morvanectl", "verify", "--full"}, PlainEnvironment(machine_), "", "", ""};
}

std::int64_t Sentrel::LastReport() const {
    return Status()["reports"]["last_seq"].asInt64();
}

AlarmPaths Sentrel::Since(std::int64_t report) const {
    AlarmPaths alarms;
    Collect(report, alarms);
    return alarms;
}

void Sentrel::Collect(std::int64_t& report, AlarmPaths& alarms) const {
    while (true) {
        const Ctl::Answer answer = Ctl::ControlClient(Socket()).Send(
            "GET", "/v1/reports?kind=alarm&limit=1000&after=" + std::to_string(report), "",
            kAnswerSeconds);
        const Json::Value& reports = answer.body["reports"];
        if (answer.status != 200 || reports.empty()) return;
        for (const Json::Value& one : reports) {
            report = one["seq"].asInt64();
            Note(one, alarms);
        }
    }
}

/// Reads the alarms only when there are enough of them, so that the agent has little work.
bool Sentrel::AwaitReports(std::int64_t report, const std::vector<std::string>& paths,
                           milliseconds deadline, AlarmPaths& alarms) const {
    const auto wanted = report + static_cast<std::int64_t>(paths.size());
    return WaitUntil(deadline, kReportStep, [&] {
        if (LastReport() < wanted) return false;
        Collect(report, alarms);
        return std::all_of(paths.begin(), paths.end(),
                           [&](const std::string& path) { return alarms.paths.count(path) > 0; });
    });
}

}  // namespace Bench
