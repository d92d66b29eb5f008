// Reads what the agent says of itself. It must not judge anew what the agent has judged.
#include "ctl/doctor/AgentChecks.h"

#include <sdk/text/JsonUtils.h>

#include <array>
#include <string_view>
#include <utility>

#include "ctl/output/HealthFormat.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/StatusWarnings.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

// What is well when no finding names the subject.
constexpr std::array<std::pair<const char*, const char*>, 9> kSubjects = {
    {{"protection", "changes are undone as the policy says"},
     {"modules", "all run"},
     {"tasks", "all run"},
     {"policies", "the agent uses what was applied"},
     {"watching", "every directory is watched"},
     {"changes", "none waits to be undone or for a decision"},
     {"copies", "the backup copies are complete"},
     {"alarms", "the report store works"},
     {"log", "no record was dropped"}}};

/// The failure of the last push, where one is still to be made.
void CheckPush(const Json::Value& status, Findings& findings) {
    if (!Flag(status["backup"], "remote_pending")) return;
    std::string failure;
    for (const Json::Value& path : status["protected_paths"]) {
        const std::string one = Text(path, "last_failure");
        if (one.find("remote backup: ") == 0) failure = one;
    }
    findings.Add("remote_pending",
                 "copies wait to be pushed" + (failure.empty() ? failure : "; " + failure));
}

void CheckCounters(const Json::Value& status, Findings& findings) {
    const long long planted = Number(status["counters"], "planted_links_removed");
    if (planted > 0) {
        findings.Add("planted_links", Counted(planted, "planted link") +
                                          " removed since the agent started; the alarms name them");
    }
    const Json::Value& preload = status["rsync"]["preload"];
    const std::string reason = Text(preload, "reason");
    if (preload.isObject() && !Flag(preload, "in_use") && !reason.empty()) {
        findings.Add("no_preload", reason);
    }
}

void CheckHealth(const Json::Value& status, Findings& findings) {
    for (const Json::Value& reason : status["health"]["reasons"]) {
        const std::string path = Text(reason, "path");
        findings.Add(Text(reason, "code"),
                     path.empty() ? Text(reason, "text") : path + ": " + Text(reason, "text"));
    }
}

}  // namespace

void CheckAgent(const Answer& answer, long long now_ms, Findings& findings) {
    switch (answer.kind) {
        case Answer::Kind::kNoAgent:
            return findings.Add("no_agent", Printable(answer.problem));
        case Answer::Kind::kDenied:
            return findings.Add("no_right", Printable(answer.problem));
        case Answer::Kind::kBroken:
            return findings.Add("no_answer", Printable(answer.problem));
        case Answer::Kind::kAnswered:
            break;
    }
    const Json::Value& status = answer.body;
    if (answer.status != 200 || !status.isObject()) {
        return findings.Add("no_answer", "the agent does not tell its status");
    }
    findings.Ok("agent", "version " + Text(status, "version") + " answers, process " +
                             std::to_string(Number(status, "pid")));
    CheckHealth(status, findings);
    // The health has the others already, or a later success has made them old.
    const bool has_place = findings.Has("places");
    for (const StatusWarning& warning : WarningsOf(status, now_ms)) {
        const bool is_told = has_place && std::string_view(warning.code) == "unsafe_place";
        if (!warning.is_detail && !is_told) findings.Add(warning.code, warning.text);
    }
    CheckPush(status, findings);
    CheckCounters(status, findings);
    for (const auto& [check, text] : kSubjects) {
        if (!findings.Has(check)) findings.Ok(check, text);
    }
}

}  // namespace Ctl
