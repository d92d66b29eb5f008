#include "sdk/files/ExclusionPatterns.h"

#include <fnmatch.h>

#include <algorithm>

namespace SDK {

namespace {

/// The last `count` components of `path`, or all of it.
std::string LastComponents(const std::string& path, std::size_t count) {
    std::size_t begin = path.size();
    for (; count > 0; --count) {
        const std::size_t slash = begin == 0 ? std::string::npos : path.rfind('/', begin - 1);
        if (slash == std::string::npos) return path;
        begin = slash;
    }
    return path.substr(begin + 1);
}

}  // namespace

ExclusionPatterns::ExclusionPatterns(const std::vector<std::string>& patterns) {
    for (const std::string& pattern : patterns) patterns_.push_back(Read(pattern));
}

ExclusionPatterns::Pattern ExclusionPatterns::Read(const std::string& text) {
    Pattern pattern;
    pattern.text = text;
    if (text.size() > 1 && text.back() == '/') {
        pattern.text.pop_back();
        pattern.directories_only = true;
    }
    if (!pattern.text.empty() && pattern.text.front() == '/') {
        pattern.text.erase(0, 1);
        pattern.is_anchored = true;
    }
    pattern.is_wild = pattern.text.find_first_of("*?[") != std::string::npos;
    pattern.crosses_directories = pattern.text.find("**") != std::string::npos;
    pattern.slashes =
        static_cast<std::size_t>(std::count(pattern.text.begin(), pattern.text.end(), '/'));
    return pattern;
}

bool ExclusionPatterns::Match(const std::string& path, bool is_directory) const {
    const std::string name = path.substr(path.find_first_not_of('/'));
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const Pattern& pattern) {
        if (pattern.text.empty() || (pattern.directories_only && !is_directory)) return false;
        return Matches(pattern, name);
    });
}

bool ExclusionPatterns::Matches(const Pattern& pattern, const std::string& path) {
    if (pattern.crosses_directories) {
        const auto fits = [&](const std::string& part) {
            return ::fnmatch(pattern.text.c_str(), part.c_str(), 0) == 0;
        };
        if (fits(path)) return true;
        if (pattern.is_anchored) return false;
        for (std::size_t slash = path.find('/'); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            if (fits(path.substr(slash + 1))) return true;
        }
        return false;
    }
    const std::string part = pattern.is_anchored ? path : LastComponents(path, pattern.slashes + 1);
    if (!pattern.is_wild) return part == pattern.text;
    return ::fnmatch(pattern.text.c_str(), part.c_str(), FNM_PATHNAME) == 0;
}

}  // namespace SDK
