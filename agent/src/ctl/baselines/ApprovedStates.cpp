// Finds the approved states on the disk. It must not write there, nor compare anything.
#include "ctl/baselines/ApprovedStates.h"

#include <sdk/files/ExclusionPatterns.h>
#include <sdk/files/PathUtils.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

#include "ctl/baselines/PolicyPaths.h"

namespace Ctl {

using Baseline::Generation;
using SDK::PathUtils;

namespace {

namespace fs = std::filesystem;

/// `path` relative to `root`, both without a trailing "/".
std::string Below(const std::string& path, const std::string& root) {
    return path.size() <= root.size() ? "" : path.substr(root == "/" ? 1 : root.size() + 1);
}

bool LiesWithin(const std::string& path, const std::string& root) {
    return root == "/" || Baseline::IsWithin(path, root);
}

/// Absolute, without ".", ".." and doubled "/". Asks the file system nothing but the current
/// directory.
std::string Lexical(const std::string& path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    return PathUtils::WithoutTrailingSlash((error ? fs::path(path) : absolute).lexically_normal());
}

/// `path` with the links of its existing parents resolved.
std::string WithParentsResolved(const std::string& path) {
    const fs::path whole(path);
    return fs::path(CanonicalPath(whole.parent_path())) / whole.filename();
}

std::string Joined(const std::string& root, const std::string& below) {
    if (below.empty()) return root;
    return (root == "/" ? "" : root) + "/" + below;
}

bool IsOlder(const Generation& a, const Generation& b) {
    const Baseline::ManifestInfo& left = a.manifest->Info();
    const Baseline::ManifestInfo& right = b.manifest->Info();
    if (left.real_path != right.real_path) return left.real_path < right.real_path;
    return left.created > right.created;
}

bool IsOfSamePath(const Generation& a, const Generation& b) {
    return a.manifest->Info().real_path == b.manifest->Info().real_path;
}

}  // namespace

std::string LiveRoot(const Baseline::ManifestInfo& info) {
    return PathUtils::WithoutTrailingSlash(info.real_path);
}

std::string CopyRoot(const Baseline::ManifestInfo& info) {
    return PathUtils::WithoutTrailingSlash(info.backup_path) + LiveRoot(info);
}

bool IsExcluded(const Baseline::ManifestInfo& info, const std::string& below) {
    if (info.is_file || below.empty()) return false;
    const SDK::ExclusionPatterns patterns(info.exclusions);
    for (std::size_t end = below.find('/'); end != std::string::npos;
         end = below.find('/', end + 1)) {
        if (patterns.Match(info.real_path + below.substr(0, end), true)) return true;
    }
    struct stat object {};
    const std::string path = info.real_path + below;
    const bool is_there = ::lstat(path.c_str(), &object) == 0;
    return patterns.Match(path, is_there && S_ISDIR(object.st_mode));
}

std::string ApprovedStates::DefaultDirectory() {
    return PathUtils::GetInstallationPath() + "data/baseline";
}

ApprovedStates::ApprovedStates(std::string directory)
    : directory_(std::move(directory)), store_(directory_) {
    Open();
}

void ApprovedStates::Open() {
    if (::access(directory_.c_str(), R_OK | X_OK) != 0) {
        problems_.push_back(errno == ENOENT
                                ? "No state is approved yet: there is no " + directory_ + "."
                                : "Cannot read " + directory_ + ": " + std::strerror(errno) +
                                      ". Try with sudo.");
        return;
    }
    if (!store_.HasKey()) {
        problems_.push_back("There is no key in " + directory_ +
                            ", so that no approved state can be checked.");
        return;
    }
    is_readable_ = true;
    for (Generation& generation : store_.All()) {
        if (generation) {
            newest_.push_back(std::move(generation));
        } else {
            problems_.push_back("An approved state cannot be used: " + generation.problem + ".");
        }
    }
    // A path whose backup was moved elsewhere has the state of its former copies, too.
    std::sort(newest_.begin(), newest_.end(), IsOlder);
    newest_.erase(std::unique(newest_.begin(), newest_.end(), IsOfSamePath), newest_.end());
    if (newest_.empty() && problems_.empty()) {
        problems_.push_back("No state is approved yet: " + directory_ + " holds none.");
    }
}

std::string ApprovedStates::Resolve(const std::string& path) const {
    const std::string lexical = Lexical(path);
    for (const Generation& generation : newest_) {
        const std::string root = LiveRoot(generation.manifest->Info());
        if (LiesWithin(lexical, Lexical(root))) return Joined(root, Below(lexical, Lexical(root)));
    }
    // What leads to a protected path is the operator's, what lies in it is not.
    for (std::size_t end = 1; end != std::string::npos && end < lexical.size();) {
        end = lexical.find('/', end + 1);
        const std::string named = Renamed(CanonicalPath(lexical.substr(0, end)));
        if (named.empty()) continue;
        return named + (end == std::string::npos ? "" : lexical.substr(end));
    }
    return WithParentsResolved(lexical);
}

std::string ApprovedStates::Renamed(const std::string& canonical) const {
    for (const Generation& generation : newest_) {
        const std::string root = LiveRoot(generation.manifest->Info());
        const std::string resolved = CanonicalPath(root);
        if (LiesWithin(canonical, resolved)) return Joined(root, Below(canonical, resolved));
    }
    return "";
}

bool ApprovedStates::HasLeftThePolicy(const std::string& root) {
    const auto named = PolicyPaths();
    return named && named->count(CanonicalPath(root)) == 0;
}

ApprovedStates::Choice ApprovedStates::Protected() const {
    const auto named = PolicyPaths();
    if (!named) return {newest_, {}, {}};
    Choice choice;
    std::map<std::string, bool> waiting = *named;
    for (const Generation& generation : newest_) {
        const std::string root = LiveRoot(generation.manifest->Info());
        if (named->count(CanonicalPath(root)) == 0) {
            choice.left_out.push_back(root);
            continue;
        }
        choice.states.push_back(generation);
        waiting.erase(CanonicalPath(root));
    }
    for (const auto& [path, is_copied] : waiting) {
        if (is_copied) choice.not_approved.push_back(path);
    }
    return choice;
}

std::vector<ApprovedPart> ApprovedStates::Holding(const std::string& path) const {
    std::vector<ApprovedPart> parts;
    for (const Generation& generation : newest_) {
        const Baseline::ManifestInfo& info = generation.manifest->Info();
        const std::string root = LiveRoot(info);
        if (info.is_file ? path == root : LiesWithin(path, root)) {
            parts.push_back({generation, Below(path, root)});
        } else if (LiesWithin(root, path)) {
            parts.push_back({generation, ""});
        }
    }
    return parts;
}

}  // namespace Ctl
