#include <PathText.h>
#include <RsyncLine.h>

#include <algorithm>
#include <array>

namespace Engine {

namespace {

const std::array<std::string, 6> kOptions = {
    "-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"};
constexpr const char* kExclude = "--exclude";
constexpr const char* kRelative = "-R";
constexpr std::size_t kPlaces = 2;

bool HasWildcard(const std::string& text) {
    return text.find_first_of("*?[\\") != std::string::npos;
}

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
    if (!BeginsWith(line.source, "/") || !BeginsWith(line.target, "/")) return std::nullopt;
    return line;
}

std::vector<std::string> RsyncLine::With(const std::string& program, const std::string& scratch,
                                         const std::string& new_source,
                                         const std::string& new_target) const {
    std::vector<std::string> words{program};
    words.insert(words.end(), kOptions.begin(), kOptions.end());
    words.back() = "--temp-dir=" + scratch;
    for (const std::string& pattern : exclusions) {
        words.insert(words.end(), {kExclude, pattern});
    }
    if (is_backup) words.emplace_back(kRelative);
    words.insert(words.end(), {new_source, new_target});
    return words;
}

RsyncExclusions::RsyncExclusions(const std::vector<std::string>& patterns) {
    for (const std::string& pattern : patterns) {
        const bool is_ending = BeginsWith(pattern, "*") && pattern.find('/') == std::string::npos;
        const std::string text = is_ending ? pattern.substr(1) : pattern;
        if (text.empty() || HasWildcard(text) || text.front() == '/' ||
            text.find("//") != std::string::npos) {
            are_plain_ = false;
        } else if (is_ending) {
            endings_.push_back(text);
        } else {
            const bool directories_only = text.back() == '/';
            names_.push_back({WithoutTrailingSlash(text), directories_only});
        }
    }
}

bool RsyncExclusions::Match(const std::string& path, bool is_directory) const {
    const std::string name = FileName(path);
    const auto ends_so = [&](const std::string& ending) { return EndsWith(name, ending); };
    if (std::any_of(endings_.begin(), endings_.end(), ends_so)) return true;
    return std::any_of(names_.begin(), names_.end(), [&](const Name& excluded) {
        if (excluded.directories_only && !is_directory) return false;
        return name == excluded.text || EndsWith(path, "/" + excluded.text);
    });
}

}  // namespace Engine
