#include "sdk/host/RsyncVersion.h"

#include <array>
#include <charconv>

namespace SDK {

namespace {

constexpr std::array<int, 3> kFirstSafeVersion = {3, 5, 0};

std::array<int, 3> Numbers(const std::string& version) {
    std::array<int, 3> numbers{};
    const char* at = version.data();
    const char* const end = at + version.size();
    for (int& number : numbers) {
        const auto [next, error] = std::from_chars(at, end, number);
        if (error != std::errc() || next == end || *next != '.') break;
        at = next + 1;
    }
    return numbers;
}

}  // namespace

std::string RsyncVersionFromText(const std::string& text) {
    static const std::string kMark = "rsync  version ";
    const std::size_t mark = text.find(kMark);
    if (mark == std::string::npos) return "";
    std::size_t begin = mark + kMark.size();
    if (begin < text.size() && text[begin] == 'v') ++begin;
    return text.substr(begin, text.find_first_of(" \t\r\n", begin) - begin);
}

bool FollowsPlantedLinks(const std::string& version) {
    return Numbers(version) < kFirstSafeVersion;
}

}  // namespace SDK
