// Looks at this host. It must not change anything, nor ask the agent.
#include "ctl/doctor/HostChecks.h"

#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/host/RsyncVersion.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "common/ControlProtocol.h"
#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/doctor/WatchedPlaces.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace fs = std::filesystem;
using SDK::FileUtils;
using SDK::PathUtils;

namespace {

constexpr long kMostBytes = 4096;
constexpr long kLargeStore = 1024L * 1024 * 1024;
constexpr std::int64_t kClockSlackS = 300;
constexpr int kCommandMs = 5000;
constexpr std::size_t kMostOutput = 4096;

std::string Installation() {
    return PathUtils::GetInstallationPath();
}

long ReadNumber(const std::string& file) {
    std::string text;
    if (FileUtils::ReadFile(file, text, kMostBytes) != 0) return -1;
    return std::strtol(text.c_str(), nullptr, 10);
}

bool IsExecutable(const char* program) {
    return ::access(program, X_OK) == 0;
}

void CheckClock(Findings& findings) {
    const std::time_t now = std::time(nullptr);
    const ApprovedStates states;
    std::int64_t newest = 0;
    for (const auto& generation : states.Newest()) {
        newest = std::max(newest, generation.manifest->Info().created);
    }
    timex state{};
    if (newest > now + kClockSlackS) {
        findings.Add("clock_behind", "it is earlier than the newest approved state");
    } else if (::adjtimex(&state) == TIME_ERROR && (state.status & STA_UNSYNC) != 0) {
        findings.Add("clock_free", "no time server keeps it");
    } else {
        findings.Ok("clock", "it is later than every approved state");
    }
}

void CheckReportStore(Findings& findings) {
    long size = 0;
    for (const char* file : {"data/reports.db", "data/reports.db-wal"}) {
        long one = 0;
        if (FileUtils::GetFileSize(Installation() + file, one) == 0) size += one;
    }
    const std::string text = "data/reports.db takes " + FormatBytes(static_cast<double>(size));
    if (size > kLargeStore) {
        findings.Add("large_store", text);
    } else {
        findings.Ok("report store", text);
    }
}

void CheckPrograms(Findings& findings) {
    if (!IsExecutable("/usr/bin/diff")) {
        findings.Add("no_diff", "without diff alarms do not show what was changed");
    }
    if (!IsExecutable("/usr/bin/rsync") && !IsExecutable((Installation() + "bin/rsync").c_str())) {
        findings.Add("no_rsync", "there is no rsync for the backup copies");
    }
    if (!findings.Has("programs")) findings.Ok("programs", "diff and rsync are installed");
    std::string kinds;
    FileUtils::ReadFile("/proc/filesystems", kinds, kMostBytes);
    if (kinds.find("\toverlay\n") == std::string::npos) {
        findings.Add("no_overlay", "it knows no overlayfs");
    } else {
        findings.Ok("kernel", "it knows overlayfs, which deploys use");
    }
}

/// The value of `key` in lines "key=value".
std::string Property(const std::string& text, const std::string& key) {
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (SDK::StrUtils::BeginsWith(line, key + "=")) return line.substr(key.size() + 1);
    }
    return "";
}

/// The agent's own copy, or the host's before there is one.
void CheckRsync(Findings& findings) {
    if (findings.Has("rsync")) return;
    const std::string own = Installation() + "bin/rsync";
    const std::string program = IsExecutable(own.c_str()) ? own : "/usr/bin/rsync";
    if (!IsExecutable(program.c_str()) || !SDK::PlaceTrust::WhyWritable(program).empty()) return;
    std::string text;
    int exit_code = 0;
    SDK::ExecuteCmdUtils::ExecuteCmd(program, {"--version"}, kCommandMs, exit_code, text,
                                     kMostOutput);
    const std::string version = SDK::RsyncVersionFromText(text);
    const std::string name = Printable(program) + " is " + Printable(version);
    if (version.empty()) {
        findings.Add("rsync_degraded", Printable(program) + " does not tell its version");
    } else if (SDK::FollowsPlantedLinks(version)) {
        findings.Add("rsync_degraded", name);
    } else {
        findings.Ok("rsync", name);
    }
}

}  // namespace

void CheckPlaces(Findings& findings) {
    const std::string unsafe = SDK::PlaceTrust::WhyWritable(Installation());
    if (!unsafe.empty()) findings.Add("installation_unsafe", Printable(unsafe));
    for (const WatchedPlace& place : WatchedPlaces()) {
        const std::string copies =
            place.backup_path.empty() ? "" : SDK::PlaceTrust::WhyReachable(place.backup_path);
        if (!copies.empty()) {
            findings.Add("copies_unsafe", Printable(place.backup_path + ": " + copies));
        }
        const std::string path = SDK::PlaceTrust::WhyReplaceable(place.path);
        if (!path.empty()) findings.Add("path_replaceable", Printable(place.path + ": " + path));
        std::error_code error;
        if (!fs::exists(place.path, error)) {
            findings.Add("path_missing", Printable(place.path) + " does not exist");
        }
    }
    if (!findings.Has("places")) {
        findings.Ok("places", "others can change neither the installation nor the copies");
    }
    if (!findings.Has("paths")) findings.Ok("paths", "every path of the policy exists");
}

void CheckPolicyFiles(Findings& findings) {
    const std::string directory = Installation() + "data/policies";
    std::error_code error;
    long long count = 0;
    for (fs::directory_iterator files(directory, error), end; !error && files != end;
         files.increment(error)) {
        if (files->path().extension() != ".json") continue;
        ++count;
        std::string text;
        Json::Value policy;
        if (FileUtils::ReadFile(files->path(), text, Agent::kMaxBodyBytes) != 0 ||
            SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), policy) != 0) {
            findings.Add("policy_unreadable",
                         Printable(std::string(files->path())) + " cannot be read as a policy");
        }
    }
    if (error == std::errc::no_such_file_or_directory) {
        findings.Add("no_policy", "no policy was ever applied");
    } else if (error) {
        findings.Add("no_right", "the policies cannot be read: " + error.message());
    } else if (!findings.Has("policies")) {
        findings.Ok("policies", Counted(count, "kept file") + " can be read");
    }
}

void CheckApprovedStates(Findings& findings) {
    const ApprovedStates states;
    for (const std::string& problem : states.Problems()) {
        findings.Add("not_approved", Printable(problem));
    }
    if (!states.IsReadable()) return;
    const ApprovedStates::Choice choice = states.Protected();
    for (const std::string& path : choice.not_approved) {
        findings.Add("not_approved", "there is no usable approved state of " + Printable(path));
    }
    for (const Baseline::Generation& state : choice.states) {
        const Baseline::ManifestInfo& info = state.manifest->Info();
        const std::string copies = CopyRoot(info);
        if (states.Store().IsMarkedBackup(info.real_path, info.backup_path) &&
            ::access(copies.c_str(), F_OK) == 0) {
            continue;
        }
        findings.Add("copies_gone", "the backup copies of " + Printable(LiveRoot(info)) +
                                        " are not in " + Printable(info.backup_path));
    }
    if (!findings.Has("approved states")) {
        findings.Ok("approved states",
                    Counted(static_cast<long long>(choice.states.size()), "path") +
                        " with a good signature");
    }
}

void CheckWatchLimit(Findings& findings) {
    const long limit = ReadNumber("/proc/sys/fs/inotify/max_user_watches");
    const ApprovedStates states;
    long directories = 0;
    for (const Baseline::Generation& state : states.Newest()) {
        for (std::size_t i = 0; i < state.manifest->Size(); ++i) {
            if (S_ISDIR(state.manifest->At(i).mode)) ++directories;
        }
    }
    const std::string text = "a user may watch " + std::to_string(limit) +
                             " directories; the approved states have " +
                             std::to_string(directories);
    if (limit >= 0 && limit < 2 * directories) {
        findings.Add("few_watches", text);
    } else {
        findings.Ok("inotify", text);
    }
}

void CheckHost(Findings& findings) {
    CheckClock(findings);
    CheckReportStore(findings);
    CheckPrograms(findings);
    CheckRsync(findings);
}

void CheckUnit(Findings& findings) {
    if (::access("/run/systemd/system", F_OK) != 0) return;
    std::string text;
    int exit_code = 0;
    SDK::ExecuteCmdUtils::ExecuteCmd(
        "/usr/bin/systemctl",
        {"show", "morvane-agent.service", "-p", "LoadState,ActiveState,UnitFileState,NRestarts"},
        kCommandMs, exit_code, text, kMostOutput);
    if (Property(text, "LoadState") != "loaded") return;
    const std::string active = Property(text, "ActiveState");
    const std::string enabled = Property(text, "UnitFileState");
    const std::string restarts = Property(text, "NRestarts");
    if (active != "active") findings.Add("unit_failed", "it is " + Printable(active));
    if (enabled != "enabled") {
        findings.Add("unit_disabled",
                     "it is " + Printable(enabled) + ", so a reboot does not start the agent");
    }
    if (!restarts.empty() && restarts != "0") {
        findings.Add("unit_restarted",
                     "systemd has restarted it " + Printable(restarts) + " times");
    }
    if (!findings.Has("unit")) findings.Ok("unit", "morvane-agent is active and enabled");
}

}  // namespace Ctl
