// Writes a message as a mail. It must not send it.
#include <Poco/Base64Encoder.h>
#include <sdk/text/Printable.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <sstream>

#include "MessageText.h"
#include "notify/Formats.h"

namespace Notify {

using SDK::Printable;
using SDK::StrUtils;

namespace {

constexpr long long kMsPerSecond = 1000;
constexpr std::size_t kMostLine = 900;  ///< bytes; a mail system may cut lines beyond 998
constexpr std::size_t kMostSubject = 160;
constexpr std::size_t kEncodedWord = 42;  ///< bytes whose encoded word fits in a line

bool IsContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

/// At most `most` bytes from `start`, without a part of a character at the end.
std::string Piece(const std::string& text, std::size_t start, std::size_t most) {
    std::size_t end = std::min(text.size(), start + most);
    while (end < text.size() && end > start + 1 && IsContinuation(text[end])) --end;
    return text.substr(start, end - start);
}

/// RFC 2047 when it is not ASCII.
std::string HeaderText(const std::string& text) {
    const bool is_ascii = std::all_of(text.begin(), text.end(),
                                      [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (is_ascii) return text;
    std::string encoded;
    for (std::size_t at = 0; at < text.size();) {
        const std::string piece = Piece(text, at, kEncodedWord);
        std::ostringstream base64;
        Poco::Base64Encoder encoder(base64);
        encoder.rdbuf()->setLineLength(0);
        encoder << piece;
        encoder.close();
        encoded += (at == 0 ? "=?UTF-8?B?" : "\n =?UTF-8?B?") + base64.str() + "?=";
        at += piece.size();
    }
    return encoded;
}

/// `text`, which has no line end, in lines of a length that every mail system keeps.
std::string Lines(const std::string& text) {
    std::string lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::string piece = Piece(text, at, kMostLine);
        lines += (at == 0 ? "" : "    ") + piece + "\n";
        at += piece.size();
    }
    return lines;
}

std::string MailDate(long long epoch_ms) {
    const std::time_t seconds = epoch_ms / kMsPerSecond;
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    static constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed",
                                                         "Thu", "Fri", "Sat"};
    static constexpr std::array<const char*, 12> kMonths = {
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    return StrUtils::Format("%s, %02d %s %d %02d:%02d:%02d +0000",
                            kDays.at(static_cast<std::size_t>(parts.tm_wday)), parts.tm_mday,
                            kMonths.at(static_cast<std::size_t>(parts.tm_mon)),
                            parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::string IncidentText(const Incident& incident) {
    const std::string time = UtcTime(incident.begun_ms) + "  ";
    std::string text;
    if (incident.IsOfHost()) {
        text = Lines(time + Printable(incident.host) + ": " + CountsText(incident.actions));
    } else {
        text = Lines(
            time +
            StrUtils::Format("%lld change%s in ", incident.count, incident.count == 1 ? "" : "s") +
            PlaceText(incident));
        text += Lines("    " + CountsText(incident.actions) + "; " + CountsText(incident.outcomes));
    }
    if (!incident.agent_id.empty()) text += Lines("    agent " + Printable(incident.agent_id));
    for (const AlarmRecord& alarm : incident.examples) text += Lines("    - " + AlarmText(alarm));
    if (incident.alarms > incident.examples.size()) {
        text +=
            StrUtils::Format("    - and %zu more\n", incident.alarms - incident.examples.size());
    }
    return text + "\n";
}

std::string Body(const Message& message) {
    if (message.kind == Message::Kind::kTest) {
        return "This is a test of the notifications of Sentrel on " +
               Printable(message.origin.host) +
               ".\nNothing has happened. Messages about changes will arrive like this one.\n";
    }
    const bool is_fleet = !message.incidents.empty() && !message.incidents.front().agent_id.empty();
    std::string text = "Sentrel on " + Printable(message.origin.host) + " saw ";
    if (is_fleet && message.incidents.front().IsOfHost()) {
        text += "hosts come or go.\n\n";
    } else {
        text += std::to_string(message.changes) + " change" + (message.changes == 1 ? "" : "s") +
                " of protected paths.\n\n";
    }
    if (message.kind == Message::Kind::kDigest) {
        text += "So many messages were sent that this one sums up several incidents.\n\n";
    }
    for (const Incident& incident : message.incidents) text += IncidentText(incident);
    if (message.left_out > 0) {
        text += StrUtils::Format("And %zu more incidents.\n\n", message.left_out);
    }
    if (message.lost > 0) {
        text += StrUtils::Format(
            "%lld reports are missing: the report store dropped them before they could be "
            "sent.\n\n",
            message.lost);
    }
    if (is_fleet) return text + "All alarms of a host: sentrel_collector reports --host AGENT\n";
    return text + "All alarms, with what was changed: morvanectl alarms --all --diff\n";
}

}  // namespace

std::string FormatMail(const Message& message, const std::vector<std::string>& to,
                       const std::string& from) {
    std::string recipients;
    for (const std::string& one : to) recipients += (recipients.empty() ? "" : ",\n ") + one;
    std::string subject = "[Sentrel] " + Printable(message.origin.host) + ": " + Headline(message);
    if (subject.size() > kMostSubject) subject = Piece(subject, 0, kMostSubject) + "...";
    std::string mail;
    if (!from.empty()) mail += "From: " + from + "\n";
    mail += "To: " + recipients + "\nSubject: " + HeaderText(subject) +
            "\nDate: " + MailDate(message.sent_ms) + "\nMessage-ID: <" + message.id +
            "@sentrel.invalid>\nAuto-Submitted: auto-generated\nMIME-Version: 1.0\n"
            "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n";
    return mail + Body(message);
}

}  // namespace Notify
