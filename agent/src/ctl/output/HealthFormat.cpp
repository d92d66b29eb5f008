#include "ctl/output/HealthFormat.h"

#include <sdk/text/JsonUtils.h>

#include <algorithm>

#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

Json::Value ReasonsIn(const Json::Value& status) {
    Json::Value health;
    Json::Value reasons(Json::arrayValue);
    if (JsonUtils::GetSubobjectValue(status, "health", health)) {
        JsonUtils::GetArrayValue(health, "reasons", reasons);
    }
    return reasons;
}

Json::Value PathsIn(const Json::Value& status) {
    Json::Value paths(Json::arrayValue);
    JsonUtils::GetArrayValue(status, "protected_paths", paths);
    return paths;
}

/// "/srv/site/: the path does not exist".
std::string Sentence(const Json::Value& reason) {
    const std::string path = Text(reason, "path");
    const std::string text = Text(reason, "text");
    return path.empty() ? text : path + ": " + text;
}

/// "  [held]": the word that "morvanectl explain" takes; empty for a reason without one.
std::string Word(const Json::Value& reason) {
    const std::string code = Text(reason, "code");
    return code.empty() ? "" : "  [" + code + "]";
}

/// `title: <first reason> (and 2 more)`.
std::string Trouble(const std::string& title, const Json::Value& reasons) {
    if (reasons.empty()) return title + ": the agent does not say why.";
    const std::string first = Sentence(reasons[0]);
    const bool is_closed = !first.empty() && first.back() == '.';
    const std::size_t others = reasons.size() - 1;
    if (others == 0) return title + ": " + first + (is_closed ? "" : ".") + Word(reasons[0]);
    return title + ": " + first + " (and " + std::to_string(others) + " more).";
}

std::string LastChange(const Json::Value& status, long long now_ms) {
    const long long undone = Number(status["protection"], "last_undone");
    if (undone > 0) return " Last change undone " + Ago(undone, now_ms) + ".";
    return " Nothing to undo since the agent started " + Ago(Number(status, "started"), now_ms) +
           ".";
}

/// The headline when all is well.
std::string Wellbeing(const Json::Value& status, long long now_ms) {
    const Json::Value& protection = status["protection"];
    if (!Flag(protection, "on")) {
        return Coloured("Backup server", Colour::kGreen) +
               ": takes the backups of other hosts. No path of this host is protected.";
    }
    const Json::Value paths = PathsIn(status);
    const auto undone =
        Flag(protection, "monitor_only")
            ? 0
            : std::count_if(paths.begin(), paths.end(),
                            [](const Json::Value& path) { return Flag(path, "auto_restore"); });
    const long long reported = static_cast<long long>(paths.size()) - undone;
    if (undone == 0) {
        return Coloured("Reported only", Colour::kYellow) + ": " + Counted(reported, "path") +
               ". Changes raise an alarm and are not undone.";
    }
    return Coloured("Protected", Colour::kGreen) + ": " + Counted(undone, "path") +
           (reported > 0 ? ", and " + std::to_string(reported) + " only reported." : ".") +
           LastChange(status, now_ms);
}

std::string ReasonLine(const Json::Value& reason, const std::string& text) {
    return "  " + Coloured("!", Colour::kYellow) + " " + text + Word(reason) + "\n";
}

}  // namespace

Health HealthOf(const Json::Value& status) {
    Json::Value health;
    if (!JsonUtils::GetSubobjectValue(status, "health", health)) return Health::kDegraded;
    const std::string state = JsonUtils::GetStringValue(health, "state", "");
    if (state == "healthy") return Health::kHealthy;
    return state == "off" ? Health::kOff : Health::kDegraded;
}

std::string FormatHeadline(const Json::Value& status, long long now_ms) {
    switch (HealthOf(status)) {
        case Health::kHealthy:
            return Wellbeing(status, now_ms) + "\n";
        case Health::kDegraded:
            return Trouble(Coloured("DEGRADED", Colour::kYellow), ReasonsIn(status)) + "\n";
        case Health::kOff:
            break;
    }
    return Trouble(Coloured("OFF", Colour::kRed), ReasonsIn(status)) + "\n";
}

std::string FormatGeneralReasons(const Json::Value& status) {
    const Json::Value reasons = ReasonsIn(status);
    const Json::Value paths = PathsIn(status);
    if (reasons.size() < 2) return "";
    std::string text;
    for (const Json::Value& reason : reasons) {
        const bool is_of_path = std::any_of(
            paths.begin(), paths.end(),
            [&](const Json::Value& path) { return Text(path, "path") == Text(reason, "path"); });
        if (!is_of_path) text += ReasonLine(reason, Sentence(reason));
    }
    return text;
}

std::string FormatReasonsOf(const Json::Value& status, const std::string& path) {
    std::string text;
    for (const Json::Value& reason : ReasonsIn(status)) {
        if (Text(reason, "path") == path) text += "  " + ReasonLine(reason, Text(reason, "text"));
    }
    return text;
}

}  // namespace Ctl
