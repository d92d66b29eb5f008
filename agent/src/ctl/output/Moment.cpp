#include "ctl/output/Moment.h"

#include <Poco/NumberParser.h>

#include <array>
#include <cctype>
#include <ctime>
#include <string_view>

namespace Ctl {

namespace {

constexpr long long kEpochFrom = 1000000000;
constexpr long long kLongestBack = 100LL * 366 * 86400;
constexpr std::string_view kUnits = "smhdw";
constexpr std::array<long long, 5> kSeconds = {1, 60, 3600, 86400, 7LL * 86400};

std::optional<long long> ParseBack(std::string text, long long now_s) {
    long long factor = 0;
    const std::size_t unit = kUnits.find(text.back());
    if (unit != std::string_view::npos) {
        factor = kSeconds.at(unit);
        text.pop_back();
    }
    Poco::Int64 number = 0;
    const bool is_number = !text.empty() &&
                           std::isdigit(static_cast<unsigned char>(text[0])) != 0 &&
                           Poco::NumberParser::tryParse64(text, number) && number >= 0;
    if (!is_number) return std::nullopt;
    if (factor == 0 && number >= kEpochFrom) return number;
    if (factor == 0) factor = 1;
    if (number > kLongestBack / factor) return std::nullopt;
    return now_s - number * factor;
}

std::optional<long long> ParseLocal(const std::string& text, long long now_s) {
    for (const char* form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d",
                             "%H:%M:%S", "%H:%M"}) {
        std::tm parts{};
        const std::time_t now = now_s;
        ::localtime_r(&now, &parts);
        parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
        const char* end = ::strptime(text.c_str(), form, &parts);
        if (end == nullptr || *end != '\0') continue;
        parts.tm_isdst = -1;
        return static_cast<long long>(std::mktime(&parts));
    }
    return std::nullopt;
}

}  // namespace

std::optional<long long> ParseMoment(const std::string& text, long long now_s) {
    if (text.empty()) return std::nullopt;
    if (auto back = ParseBack(text, now_s)) return back;
    return ParseLocal(text, now_s);
}

}  // namespace Ctl
