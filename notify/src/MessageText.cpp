#include "MessageText.h"

#include <sdk/text/Printable.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "notify/Formats.h"

namespace Notify {

using SDK::Printable;
using SDK::StrUtils;

namespace {

constexpr long long kMsPerSecond = 1000;

}  // namespace

std::string UtcTime(long long epoch_ms) {
    const std::time_t seconds = epoch_ms / kMsPerSecond;
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    return StrUtils::Format("%s.%03dZ", text.data(), static_cast<int>(epoch_ms % kMsPerSecond));
}

std::string CountsText(const std::map<std::string, long long>& counts) {
    std::vector<std::pair<std::string, long long>> sorted(counts.begin(), counts.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (const auto& [name, count] : sorted) {
        if (name.empty()) continue;
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + Printable(name);
    }
    return text;
}

std::string AlarmText(const AlarmRecord& alarm) {
    std::string text = Printable(alarm.action);
    if (!alarm.path.empty()) text += " " + Printable(alarm.path);
    if (!alarm.outcome.empty()) text += ": " + Printable(alarm.outcome);
    if (alarm.duration_ms >= 0) text += StrUtils::Format(" in %.1f ms", alarm.duration_ms);
    if (!alarm.who.empty()) text += ", " + alarm.who;
    return text;
}

std::string PlaceText(const Incident& incident) {
    std::string text = Printable(incident.common);
    if (!incident.agent_id.empty()) text += " of " + Printable(incident.host);
    return text;
}

bool IsFailure(const std::string& outcome) {
    return outcome.find("failed") != std::string::npos;
}

namespace {

/// "www1: silent", "7 hosts: 5 silent, 3 back".
std::string HostsHeadline(const Message& message) {
    const std::size_t count = message.incidents.size() + message.left_out;
    const Incident& first = message.incidents.front();
    if (count == 1 && first.actions.size() == 1) {
        return Printable(first.host) + ": " + Printable(first.actions.begin()->first);
    }
    std::map<std::string, long long> actions;
    for (const Incident& incident : message.incidents) {
        for (const auto& [name, number] : incident.actions) actions[name] += number;
    }
    const std::string what =
        count == 1 ? Printable(first.host) : StrUtils::Format("%zu hosts", count);
    return what + ": " + (message.left_out > 0 ? "such as " : "") + CountsText(actions);
}

}  // namespace

std::string Headline(const Message& message) {
    if (message.kind == Message::Kind::kTest) return "Test: notifications of Sentrel arrive";
    if (!message.incidents.empty() && message.incidents.front().IsOfHost()) {
        return HostsHeadline(message);
    }
    std::map<std::string, long long> outcomes;
    for (const Incident& incident : message.incidents) {
        for (const auto& [name, count] : incident.outcomes) outcomes[name] += count;
    }
    std::string text =
        std::to_string(message.changes) + (message.changes == 1 ? " change" : " changes");
    if (message.incidents.size() == 1 && message.left_out == 0) {
        text += " in " + PlaceText(message.incidents.front());
    } else {
        text += StrUtils::Format(" in %zu incidents", message.incidents.size() + message.left_out);
    }
    const std::string counts = CountsText(outcomes);
    return counts.empty() ? text : text + ": " + counts;
}

Message TestMessage(const Origin& origin, long long now_ms) {
    Message message;
    message.kind = Message::Kind::kTest;
    message.origin = origin;
    message.sent_ms = now_ms;
    message.id = origin.agent_id + "-test-" + std::to_string(now_ms);
    return message;
}

}  // namespace Notify
