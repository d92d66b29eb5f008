#include "ctl/output/Terminal.h"

#include <Poco/UTF8Encoding.h>
#include <poll.h>
#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>

namespace Ctl {

namespace {

constexpr long long kMsPerSecond = 1000;

/// Characters that a terminal does not show as they are: control characters, and those that hide
/// text, break lines or change the writing direction.
bool IsUnsafeToPrint(int code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0xad || code == 0x61c ||
           (code >= 0x200b && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2060 && code <= 0x206f) || code == 0xfeff ||
           (code >= 0xfff9 && code <= 0xfffb) || (code >= 0xe0000 && code <= 0xe007f);
}

/// The length and code of the UTF-8 character at the beginning of `text`; 0 when it is invalid.
int Decode(std::string_view text, int& code) {
    static const Poco::UTF8Encoding utf8;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const int length = utf8.sequenceLength(bytes, 1);
    if (length < 1 || length > static_cast<int>(text.size()) ||
        !Poco::UTF8Encoding::isLegal(bytes, length)) {
        return 0;
    }
    code = utf8.queryConvert(bytes, length);
    return code >= 0 ? length : 0;
}

std::string Escape(int code) {
    switch (code) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return code < 0x80 ? SDK::StrUtils::Format("\\x%02x", code)
                               : SDK::StrUtils::Format("\\u%04x", code);
    }
}

bool& Colours() {
    static bool on = ::isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    return on;
}

}  // namespace

std::string Printable(std::string_view text, bool keep_tabs) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        int code = 0;
        const int length = Decode(text, code);
        if (length == 0) {
            out += SDK::StrUtils::Format("\\x%02x", static_cast<unsigned char>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        if (code == '\\') {
            out += "\\\\";
        } else if (IsUnsafeToPrint(code) && !(keep_tabs && code == '\t')) {
            out += Escape(code);
        } else {
            out.append(text.substr(0, static_cast<std::size_t>(length)));
        }
        text.remove_prefix(static_cast<std::size_t>(length));
    }
    return out;
}

std::string Coloured(const std::string& text, Colour colour) {
    if (!Colours()) return text;
    constexpr std::array<const char*, 4> kCodes = {"31", "32", "33", "1"};
    return "\033[" + std::string(kCodes.at(static_cast<std::size_t>(colour))) + "m" + text +
           "\033[0m";
}

void SetColours(bool on) {
    Colours() = on;
}

bool IsOutputClosed() {
    pollfd out{STDOUT_FILENO, 0, 0};
    return ::poll(&out, 1, 0) > 0 && (out.revents & POLLERR) != 0;
}

std::string ShortTime(long long epoch_ms, long long now_ms) {
    const std::time_t then = epoch_ms / kMsPerSecond;
    const std::time_t now = now_ms / kMsPerSecond;
    std::tm then_parts{};
    std::tm now_parts{};
    ::localtime_r(&then, &then_parts);
    ::localtime_r(&now, &now_parts);
    const bool today =
        then_parts.tm_year == now_parts.tm_year && then_parts.tm_yday == now_parts.tm_yday;
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), today ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &then_parts);
    return text.data();
}

}  // namespace Ctl
