#include "SiteSurvey.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

namespace Demo {
namespace {

constexpr off_t kLargestVictim = 512 * 1024;
constexpr std::size_t kLargestSubtree = 200;
constexpr char kCarryableMarks[] = "/._-+@%,:=";

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool IsBelow(const std::string& path, const std::string& directory) {
    return path.compare(0, directory.size() + 1, directory + "/") == 0;
}

/// The site as the attack sees it.
class Map {
  public:
    explicit Map(const SurveyRequest& request) : request_(request) { Walk(request.site); }

    /// Files fit to be attacked, by directory; both sorted.
    std::map<std::string, std::vector<std::string>> files;
    /// Directories below the site, with the number of objects below each; sorted.
    std::map<std::string, std::size_t> directories;

    /// True when everything below can be restored and counted: no link out, no odd name.
    bool IsWhole(const std::string& directory) const {
        return std::none_of(unfit_.begin(), unfit_.end(),
                            [&](const std::string& path) { return IsBelow(path, directory); });
    }

  private:
    std::size_t Walk(const std::string& directory) {
        std::size_t count = 0;
        std::error_code error;
        for (std::filesystem::directory_iterator entry(directory, error), end;
             !error && entry != end; entry.increment(error)) {
            const std::string path = directory + "/" + entry->path().filename().string();
            ++count;
            if (IsExcluded(path)) {
                unfit_.push_back(path);
            } else if (entry->is_directory(error) && !entry->is_symlink(error)) {
                const std::size_t below = Walk(path);
                directories[path] = below;
                count += below;
            } else if (IsFitFile(path)) {
                files[directory].push_back(path);
            }
        }
        const auto group = files.find(directory);
        if (group != files.end()) std::sort(group->second.begin(), group->second.end());
        return count;
    }

    bool IsExcluded(const std::string& path) const {
        if (!IsCarryable(path)) return true;
        const std::string relative = path.substr(request_.site.size() + 1);
        const auto begins = [&](const std::string& subdir) {
            return relative.rfind(subdir, 0) == 0;
        };
        const auto ends = [&](const std::string& suffix) { return EndsWith(path, suffix); };
        return std::any_of(request_.excluded_subdirs.begin(), request_.excluded_subdirs.end(),
                           begins) ||
               std::any_of(request_.excluded_suffixes.begin(), request_.excluded_suffixes.end(),
                           ends);
    }

    static bool IsFitFile(const std::string& path) {
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
               info.st_size > 0 && info.st_size <= kLargestVictim;
    }

    const SurveyRequest& request_;
    std::vector<std::string> unfit_;
};

/// `count` of `all` (fewer when there are fewer), at even distances.
std::vector<std::string> Spread(const std::vector<std::string>& all, std::size_t count) {
    std::vector<std::string> chosen;
    count = std::min(count, all.size());
    for (std::size_t i = 0; i < count; ++i) chosen.push_back(all[i * all.size() / count]);
    return chosen;
}

std::vector<std::string> ChooseDirectories(const Map& map, std::size_t count) {
    std::vector<std::string> fit;
    for (const auto& [path, below] : map.directories) {
        const bool nested = std::any_of(fit.begin(), fit.end(), [&path = path](const auto& other) {
            return IsBelow(path, other);
        });
        if (!nested && below > 0 && below <= kLargestSubtree && map.files.count(path) > 0 &&
            map.IsWhole(path)) {
            fit.push_back(path);
        }
    }
    return Spread(fit, count);
}

/// One file of each directory in turn, the directories at even distances.
std::vector<std::string> ChooseFiles(const std::map<std::string, std::vector<std::string>>& groups,
                                     std::size_t count) {
    std::vector<std::string> rounds;
    std::size_t longest = 0;
    for (const auto& group : groups) longest = std::max(longest, group.second.size());
    for (std::size_t i = 0; i < longest; ++i) {
        std::vector<std::string> round;
        for (const auto& group : groups) {
            if (i < group.second.size()) round.push_back(group.second[i]);
        }
        const auto chosen = Spread(round, count - rounds.size());
        rounds.insert(rounds.end(), chosen.begin(), chosen.end());
        if (rounds.size() == count) break;
    }
    return rounds;
}

}  // namespace

bool IsCarryable(const std::string& path) {
    return std::all_of(path.begin(), path.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        const bool alphanumeric =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        return alphanumeric || byte >= 0x80 || (c != '\0' && std::strchr(kCarryableMarks, c));
    });
}

bool ChooseVictims(const SurveyRequest& request, Victims& victims, std::string& error) {
    const Map map(request);
    victims.directories = ChooseDirectories(map, request.directories);
    auto groups = map.files;
    for (const std::string& taken : victims.directories) {
        for (auto group = groups.begin(); group != groups.end();) {
            const bool gone = group->first == taken || IsBelow(group->first, taken);
            group = gone ? groups.erase(group) : std::next(group);
        }
    }
    victims.files = ChooseFiles(groups, request.files);
    if (victims.directories.size() < request.directories || victims.files.size() < request.files) {
        error = "the site is too small for the attack: it needs " + std::to_string(request.files) +
                " files of at most 512 KiB and " + std::to_string(request.directories) +
                " small directories with files beside them, and has " +
                std::to_string(victims.files.size()) + " and " +
                std::to_string(victims.directories.size());
        return false;
    }
    for (const auto& group : groups) victims.homes.push_back(group.first);
    victims.homes = Spread(victims.homes, 2);
    if (victims.homes.size() == 1) victims.homes.push_back(victims.homes.front());
    return true;
}

}  // namespace Demo
