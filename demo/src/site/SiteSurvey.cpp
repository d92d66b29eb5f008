#include "site/SiteSurvey.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

#include "sdk/text/StrUtils.h"

namespace Demo {
namespace {

constexpr off_t kLargestTarget = 512 * 1024;
constexpr std::size_t kLargestSubtree = 200;
constexpr char kPlainCharacters[] = "/._-+@%,:=";

bool IsBelow(const std::string& path, const std::string& directory) {
    return SDK::StrUtils::BeginsWith(path, directory + "/");
}

/// The files and directories of the site that may be attacked.
class SiteIndex {
  public:
    explicit SiteIndex(const SurveyRequest& request) : request_(request) { Walk(request.site); }

    /// Files that may be attacked, by directory; both sorted.
    std::map<std::string, std::vector<std::string>> files;
    /// Directories below the site, with the number of objects below each; sorted.
    std::map<std::string, std::size_t> directories;

    /// True when everything below can be restored and counted: no excluded object and no odd name.
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
        if (!IsPlainPath(path)) return true;
        const std::string relative = path.substr(request_.site.size() + 1);
        const auto begins = [&](const std::string& subdir) {
            return SDK::StrUtils::BeginsWith(relative, subdir);
        };
        const auto ends = [&](const std::string& suffix) {
            return SDK::StrUtils::EndsWith(path, suffix);
        };
        return std::any_of(request_.excluded_subdirs.begin(), request_.excluded_subdirs.end(),
                           begins) ||
               std::any_of(request_.excluded_suffixes.begin(), request_.excluded_suffixes.end(),
                           ends);
    }

    static bool IsFitFile(const std::string& path) {
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
               info.st_size > 0 && info.st_size <= kLargestTarget;
    }

    const SurveyRequest& request_;
    std::vector<std::string> unfit_;
};

/// At most `count` of `all`, at even distances.
std::vector<std::string> PickEvenly(const std::vector<std::string>& all, std::size_t count) {
    std::vector<std::string> chosen;
    count = std::min(count, all.size());
    for (std::size_t i = 0; i < count; ++i) chosen.push_back(all[i * all.size() / count]);
    return chosen;
}

std::vector<std::string> ChooseDirectories(const SiteIndex& index, std::size_t count) {
    std::vector<std::string> fit;
    for (const auto& [path, below] : index.directories) {
        const bool nested = std::any_of(fit.begin(), fit.end(), [&path = path](const auto& other) {
            return IsBelow(path, other);
        });
        if (!nested && below > 0 && below <= kLargestSubtree && index.files.count(path) > 0 &&
            index.IsWhole(path)) {
            fit.push_back(path);
        }
    }
    return PickEvenly(fit, count);
}

/// One file per directory in turn, the directories at even distances.
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
        const auto chosen = PickEvenly(round, count - rounds.size());
        rounds.insert(rounds.end(), chosen.begin(), chosen.end());
        if (rounds.size() == count) break;
    }
    return rounds;
}

}  // namespace

bool IsPlainPath(const std::string& path) {
    return std::all_of(path.begin(), path.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        const bool alphanumeric =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        return alphanumeric || byte >= 0x80 || (c != '\0' && std::strchr(kPlainCharacters, c));
    });
}

bool ChooseTargets(const SurveyRequest& request, AttackTargets& targets, std::string& error) {
    const SiteIndex index(request);
    targets.directories = ChooseDirectories(index, request.directories);
    auto groups = index.files;
    for (const std::string& taken : targets.directories) {
        for (auto group = groups.begin(); group != groups.end();) {
            const bool gone = group->first == taken || IsBelow(group->first, taken);
            group = gone ? groups.erase(group) : std::next(group);
        }
    }
    targets.files = ChooseFiles(groups, request.files);
    if (targets.directories.size() < request.directories || targets.files.size() < request.files) {
        error = "the site is too small for the attack: it needs " + std::to_string(request.files) +
                " files of at most 512 KiB and " + std::to_string(request.directories) +
                " small directories with files beside them, and has " +
                std::to_string(targets.files.size()) + " and " +
                std::to_string(targets.directories.size());
        return false;
    }
    for (const auto& group : groups) targets.stable_directories.push_back(group.first);
    targets.stable_directories = PickEvenly(targets.stable_directories, 2);
    if (targets.stable_directories.size() == 1)
        targets.stable_directories.push_back(targets.stable_directories.front());
    return true;
}

}  // namespace Demo
