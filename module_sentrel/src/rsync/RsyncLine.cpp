#include "rsync/RsyncLine.h"

#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace Engine {

namespace {

const std::array<std::string, 6> kOptions = {
    "-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"};
constexpr const char* kExclude = "--exclude";
constexpr const char* kRelative = "-R";
constexpr std::size_t kPlaces = 2;

}  // namespace

std::optional<RsyncLine> RsyncLine::Of(const std::vector<std::string>& arguments) {
    const std::size_t first = 1 + kOptions.size();
    if (arguments.size() < first + kPlaces) return std::nullopt;
    if (!std::equal(kOptions.begin(), kOptions.end(), arguments.begin() + 1)) return std::nullopt;
    RsyncLine line;
    std::size_t at = first;
    for (; at + 1 < arguments.size() && arguments[at] == kExclude; at += 2) {
        line.exclusions.push_back(arguments[at + 1]);
    }
    if (at < arguments.size() && arguments[at] == kRelative) {
        line.is_backup = true;
        ++at;
    }
    if (at + kPlaces != arguments.size()) return std::nullopt;
    line.source = arguments[at];
    line.target = arguments[at + 1];
    if (!SDK::StrUtils::BeginsWith(line.source, "/") ||
        !SDK::StrUtils::BeginsWith(line.target, "/"))
        return std::nullopt;
    return line;
}

std::vector<std::string> RsyncLine::With(const std::string& program, const std::string& scratch,
                                         const std::string& new_source,
                                         const std::string& new_target,
                                         const std::string& replaced) const {
    std::vector<std::string> words{program};
    words.insert(words.end(), kOptions.begin(), std::prev(kOptions.end()));
    if (!scratch.empty()) words.push_back("--temp-dir=" + scratch);
    for (const std::string& pattern : exclusions) {
        words.insert(words.end(), {kExclude, pattern});
    }
    if (!replaced.empty()) {
        words.insert(words.end(), {"--backup", "--backup-dir=" + replaced});
    }
    if (is_backup) words.emplace_back(kRelative);
    words.insert(words.end(), {new_source, new_target});
    return words;
}

}  // namespace Engine
