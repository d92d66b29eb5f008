#include "rsync/RsyncExclusions.h"

namespace Engine {

std::vector<std::string> RsyncExclusions::PatternsOf(const SentrelDirRule& rule) {
    std::vector<std::string> patterns;
    for (const std::string& ending : rule.ignored_postfix) patterns.push_back("*" + ending);
    patterns.insert(patterns.end(), rule.ignored_subdir.begin(), rule.ignored_subdir.end());
    return patterns;
}

}  // namespace Engine
