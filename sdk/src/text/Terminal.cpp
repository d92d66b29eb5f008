#include <poll.h>
#include <sdk/text/Terminal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>

namespace SDK {

namespace {

constexpr long long kMsPerSecond = 1000;

bool& Colours() {
    static bool on = ::isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    return on;
}

}  // namespace

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

}  // namespace SDK
