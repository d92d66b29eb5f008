// Owns the table of known faults: how bad each is, what to do and under which word
// docs/troubleshooting.md explains it. It must not look for faults.
#include "ctl/doctor/Findings.h"

#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <array>

#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

using Level = Finding::Level;

struct Fault {
    const char* code;
    Level level;
    const char* check;
    const char* advice;
    const char* section;
};

constexpr char kReadStatus[] = "morvanectl status names each of them";
constexpr char kJournal[] = "read journalctl -u morvane-agent, then systemctl restart it";
constexpr char kMakeRoom[] = "make room there";
constexpr char kDecide[] = "look with morvanectl verify, then morvanectl accept or restore";
constexpr char kNoAdvice[] = "see morvanectl status and log/agent.log";

// The codes of the agent's health and warnings come first, then those of the doctor's own checks.
constexpr std::array kFaults = {
    Fault{"off", Level::kProblem, "protection", "morvanectl protect DIR, or policy apply", "off"},
    Fault{"paused", Level::kWarning, "protection", "wait, or change the schedule of the policy",
          "paused"},
    Fault{"pause", Level::kWarning, "protection", "morvanectl resume PATH", "pause"},
    Fault{"no_path", Level::kProblem, "protection", "name an existing path and apply the policy",
          "no_path"},
    Fault{"no_protection_module", Level::kProblem, "modules", "install the agent anew",
          "no_protection_module"},
    Fault{"module_failed", Level::kProblem, "modules", "install the agent anew", "module_failed"},
    Fault{"policy_failed", Level::kProblem, "policies",
          "mend what the message names, then morvanectl policy apply", "policy_failed"},
    Fault{"policy_refused", Level::kWarning, "policies",
          "mend what the message names, then morvanectl policy apply", "policy_refused"},
    Fault{"task_stalled", Level::kProblem, "tasks", "look at the disk, then at log/agent.log",
          "task_stalled"},
    Fault{"task_init_failed", Level::kProblem, "tasks", "look at log/agent.log",
          "task_init_failed"},
    Fault{"log_records_dropped", Level::kWarning, "log", "lower the level of the log",
          "log_records_dropped"},
    Fault{"unsafe_place", Level::kProblem, "places",
          "chown root, chmod go-w (copies: chmod 0700), then apply the policy again",
          "unsafe_place"},
    Fault{"missing", Level::kWarning, "watching", "nothing, if the path is to appear later",
          "missing"},
    Fault{"walking", Level::kWarning, "watching", "wait until all watches are placed", "walking"},
    Fault{"not_watched", Level::kProblem, "watching", kReadStatus, "not_watched"},
    Fault{"unwatched_directories", Level::kProblem, "watching",
          "raise fs.inotify.max_user_watches or the limit of open files", "unwatched_directories"},
    Fault{"queue_limit", Level::kWarning, "watching",
          "set fs.inotify.max_queued_events on the host and restart the agent", "queue_limit"},
    Fault{"not_in_place", Level::kProblem, "paths",
          "look for the intruder, put the path or mount back, or apply the policy again",
          "not_in_place"},
    Fault{"planted_links", Level::kWarning, "changes", "look for the intruder", "planted_links"},
    Fault{"not_undone", Level::kProblem, "changes", "remove the cause that the line names",
          "not_undone"},
    Fault{"held", Level::kWarning, "changes", kDecide, "held"},
    Fault{"open_objects", Level::kWarning, "copies",
          "delete what does not belong there, free some space, apply the policy again",
          "open_objects"},
    Fault{"attributes_not_compared", Level::kWarning, "copies",
          "put the copies on ext4, XFS or Btrfs", "attributes_not_compared"},
    Fault{"backup_incomplete", Level::kWarning, "copies",
          "wait, or remove the cause that the line names", "backup_incomplete"},
    Fault{"no_backup_path", Level::kProblem, "copies", "give the path a backup_path",
          "no_backup_path"},
    Fault{"remote_pending", Level::kWarning, "backup server",
          "remove the cause; the agent pushes again by itself", "last_failure"},
    Fault{"backup_server_down", Level::kProblem, "backup server",
          "read log/morvane_rsync.log; the agent starts it again", "backup_server_down"},
    Fault{"report_store", Level::kProblem, "alarms", "make room for data/reports.db",
          "report_store"},
    Fault{"alarms_lost", Level::kWarning, "alarms",
          "make room for data/reports.db; log/alarms.jsonl has them", "alarms_lost"},
    Fault{"rsync_degraded", Level::kWarning, "rsync", "give the policy rsync 3.5.0 or later",
          "rsync_degraded"},
    Fault{"no_preload", Level::kWarning, "rsync", "put lib/librsync_preload.so back",
          "rsync_degraded"},

    Fault{"no_agent", Level::kProblem, "agent",
          "systemctl start morvane-agent, or bin/morvane_agent --daemon", "no_agent"},
    Fault{"no_right", Level::kProblem, "agent", "run this as root", "no_agent"},
    Fault{"no_answer", Level::kProblem, "agent", kJournal, "no_agent"},
    Fault{"unit_failed", Level::kProblem, "unit", kJournal, "unit"},
    Fault{"unit_disabled", Level::kWarning, "unit", "systemctl enable morvane-agent", "unit"},
    Fault{"unit_restarted", Level::kWarning, "unit", "read journalctl -u morvane-agent", "unit"},
    Fault{"policy_unreadable", Level::kProblem, "policies", "apply the policy again",
          "policy_failed"},
    Fault{"no_policy", Level::kWarning, "policies", "morvanectl protect DIR", "off"},
    Fault{"installation_unsafe", Level::kProblem, "places",
          "chown root and chmod go-w what the line names", "unsafe_place"},
    Fault{"copies_unsafe", Level::kProblem, "places",
          "chown root, chmod 0700, then apply the policy again", "unsafe_place"},
    Fault{"path_replaceable", Level::kWarning, "places",
          "give the directories above the path to root", "unsafe_place"},
    Fault{"path_missing", Level::kWarning, "paths", "nothing, if it is to appear later", "missing"},
    Fault{"copies_gone", Level::kProblem, "copies",
          "mount them, or fetch them: morvanectl restore --from-server PATH", "copies_gone"},
    Fault{"not_approved", Level::kWarning, "approved states",
          "look at the site, then morvanectl policy apply or accept", "not_approved"},
    Fault{"few_watches", Level::kWarning, "watching", "raise fs.inotify.max_user_watches",
          "unwatched_directories"},
    Fault{"disk_full", Level::kProblem, "disk space", kMakeRoom, "disk_space"},
    Fault{"disk_nearly_full", Level::kWarning, "disk space", kMakeRoom, "disk_space"},
    Fault{"read_only", Level::kProblem, "file systems", "mount it writable", "file_system"},
    Fault{"odd_file_system", Level::kWarning, "file systems",
          "use a local file system such as ext4 or XFS", "file_system"},
    Fault{"clock_behind", Level::kProblem, "clock", "set the clock", "clock"},
    Fault{"clock_free", Level::kWarning, "clock", "start systemd-timesyncd, chrony or ntpd",
          "clock"},
    Fault{"large_store", Level::kWarning, "report store",
          "stop the agent, move data/reports.db elsewhere, start it", "report_store"},
    Fault{"no_diff", Level::kWarning, "programs", "apt-get install diffutils", "programs"},
    Fault{"no_rsync", Level::kWarning, "programs", "apt-get install rsync", "programs"},
    Fault{"no_overlay", Level::kWarning, "kernel", "modprobe overlay; deploys need it", "programs"},
    Fault{"no_name", Level::kProblem, "backup server", "mend the name, or use the address",
          "backup_server"},
    Fault{"no_connection", Level::kProblem, "backup server",
          "look at the server's agent, at the network and the firewall", "backup_server"},
    Fault{"no_password", Level::kProblem, "backup server", "morvanectl secret set",
          "backup_server"},
};

constexpr std::array<const char*, 3> kNames = {"ok", "warning", "problem"};
constexpr std::array<Colour, 3> kColours = {Colour::kGreen, Colour::kYellow, Colour::kRed};

const char* NameOf(Level level) {
    return kNames.at(static_cast<std::size_t>(level));
}

std::string Line(const Finding& finding) {
    const std::string name = SDK::StrUtils::Format("%-7s", NameOf(finding.level));
    std::string line = Coloured(name, kColours.at(static_cast<std::size_t>(finding.level))) +
                       SDK::StrUtils::Format("  %-15s  ", finding.check.c_str()) + finding.text;
    if (finding.level == Level::kOk) return line + "\n";
    const bool is_closed = !finding.text.empty() && finding.text.back() == '.';
    return line + (is_closed ? "" : ".") + " To do: " + finding.advice + ". [" + finding.section +
           "]\n";
}

std::size_t Count(const Findings& findings, Level level) {
    const std::vector<Finding>& all = findings.All();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&](const Finding& one) { return one.level == level; }));
}

}  // namespace

void Findings::Ok(const std::string& check, const std::string& text) {
    all_.push_back({Level::kOk, "", check, text, "", ""});
}

void Findings::Add(const std::string& code, const std::string& text) {
    const auto* const known = std::find_if(kFaults.begin(), kFaults.end(),
                                           [&](const Fault& one) { return code == one.code; });
    if (known == kFaults.end()) {
        all_.push_back({Level::kWarning, code, "protection", text, kNoAdvice, code});
    } else {
        all_.push_back({known->level, code, known->check, text, known->advice, known->section});
    }
}

bool Findings::Has(const std::string& check) const {
    return std::any_of(all_.begin(), all_.end(),
                       [&](const Finding& one) { return one.check == check; });
}

Finding::Level Findings::Worst() const {
    Level worst = Level::kOk;
    for (const Finding& one : all_) worst = std::max(worst, one.level);
    return worst;
}

std::string FormatFindings(const Findings& findings) {
    std::string text;
    for (const Finding& one : findings.All()) text += Line(one);
    const auto count = [&](Level level) { return static_cast<long long>(Count(findings, level)); };
    text += "\n" + Counted(count(Level::kProblem), "problem") + ", " +
            Counted(count(Level::kWarning), "warning") + ", " + std::to_string(count(Level::kOk)) +
            " ok.";
    if (findings.Worst() != Level::kOk)
        text += " morvanectl explain WORD: more about a word in brackets.";
    return text + "\n";
}

Json::Value FindingsObject(const Findings& findings) {
    Json::Value object(Json::objectValue);
    object["state"] = NameOf(findings.Worst());
    Json::Value& checks = object["checks"] = Json::Value(Json::arrayValue);
    for (const Finding& one : findings.All()) {
        Json::Value check(Json::objectValue);
        check["check"] = one.check;
        check["state"] = NameOf(one.level);
        check["code"] = one.code;
        check["text"] = one.text;
        check["advice"] = one.advice;
        check["section"] = one.section;
        checks.append(std::move(check));
    }
    return object;
}

}  // namespace Ctl
