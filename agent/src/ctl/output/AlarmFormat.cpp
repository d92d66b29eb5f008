#include "ctl/output/AlarmFormat.h"

#include <notify/WhoText.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <string_view>

#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr char kIndent[] = "    ";

bool ParseBody(const Json::Value& report, Json::Value& document) {
    const std::string body = JsonUtils::GetStringValue(report, "body", "");
    return JsonUtils::ParseJsonStr(body.data(), body.size(), document) == 0;
}

long long TimeOf(const Json::Value& report) {
    return report["time_ms"].isIntegral() ? report["time_ms"].asInt64() : 0;
}

std::string Outcome(const Json::Value& report) {
    const std::string outcome = JsonUtils::GetStringValue(report, "outcome", "");
    if (outcome.empty()) return "";
    std::string text = Printable(outcome);
    const Json::Value& duration = report["duration_ms"];
    if (duration.isNumeric()) {
        text += SDK::StrUtils::Format(" in %.1f ms", duration.asDouble());
    }
    const bool failed = outcome.find("failed") != std::string::npos;
    return Coloured(text, failed ? Colour::kRed : Colour::kGreen);
}

/// Each line of `text`, escaped and indented.
std::string Indented(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        out += kIndent + Printable(text.substr(0, end), true) + "\n";
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return out;
}

}  // namespace

std::string FormatAlarm(const Json::Value& report, bool with_diff, long long now_ms) {
    Json::Value document;
    Json::Value files;
    if (!ParseBody(report, document) || !JsonUtils::GetArrayValue(document, "file_info", files) ||
        files.empty()) {
        return FormatReport(report, now_ms);
    }
    const Json::Value& file = files[0];
    const std::string outcome = Outcome(report);
    std::string text =
        SDK::StrUtils::Format("%s  %-9s  %s", ShortTime(TimeOf(report), now_ms).c_str(),
                              Printable(JsonUtils::GetStringValue(file, "action", "")).c_str(),
                              Printable(JsonUtils::GetStringValue(file, "file_path", "")).c_str());
    const std::string who = Notify::ShortWho(report);
    text += outcome.empty() ? "" : "  " + outcome;
    text += (who.empty() ? "" : "  " + who) + "\n";
    if (with_diff) {
        for (const std::string& line : Notify::WhoLines(report)) text += kIndent + line + "\n";
        text += Indented(JsonUtils::GetStringValue(file, "diff_attr", ""));
        text += Indented(JsonUtils::GetStringValue(file, "diff", ""));
    }
    return text;
}

std::string FormatReport(const Json::Value& report, long long now_ms) {
    return SDK::StrUtils::Format("%s  %-4s  %s  %s\n", ShortTime(TimeOf(report), now_ms).c_str(),
                                 Printable(JsonUtils::GetStringValue(report, "kind", "")).c_str(),
                                 Printable(JsonUtils::GetStringValue(report, "name", "")).c_str(),
                                 Printable(JsonUtils::GetStringValue(report, "body", "")).c_str());
}

Json::Value AlarmObject(const Json::Value& report) {
    Json::Value object = report;
    Json::Value document;
    if (ParseBody(report, document)) object["alarm"] = document;
    return object;
}

}  // namespace Ctl
