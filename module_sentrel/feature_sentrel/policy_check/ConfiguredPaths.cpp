#include "feature_sentrel/policy_check/ConfiguredPaths.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <utility>

namespace Engine {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxCompared = 500;  ///< each is compared with each other

fs::path Resolve(const std::string& path) {
    if (path.empty()) return {};
    std::error_code error;
    fs::path resolved = fs::weakly_canonical(path, error);
    if (error) resolved = fs::path(path).lexically_normal();
    if (!resolved.has_filename() && resolved.has_relative_path()) resolved = resolved.parent_path();
    return resolved;
}

/// `path` is `root` or lies below it.
bool IsWithin(const fs::path& path, const fs::path& root) {
    return std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first == root.end();
}

void ComparePlaces(const ProtectedPlace& place, const ProtectedPlace& other,
                   PolicyFindings& findings) {
    const std::string path_pointer = PointerTo(place.pointer, "filepath");
    const std::string backup_pointer = PointerTo(place.pointer, "backup_path");
    if (place.path == other.path) {
        findings.Warning(path_pointer, "is protected by " + other.pointer + " too");
    } else if (IsWithin(place.path, other.path)) {
        findings.Warning(path_pointer, "lies within the path of " + other.pointer);
    } else if (IsWithin(other.path, place.path)) {
        findings.Warning(path_pointer, "holds the path of " + other.pointer);
    }
    if (!place.backup.empty() && place.backup == other.backup) {
        findings.Warning(backup_pointer, "is the backup path of " + other.pointer + " too");
    }
}

void CheckBackupWithin(const ProtectedPlace& place, const ProtectedPlace& other,
                       PolicyFindings& findings) {
    if (place.backup.empty() || !IsWithin(place.backup, other.path)) return;
    findings.Error(PointerTo(place.pointer, "backup_path"),
                   "lies within the protected path " + other.path.string() +
                       ": every backup would count as tampering");
}

}  // namespace

ProtectedPlace::ProtectedPlace(const Json::Value& entry, std::string entry_pointer)
    : pointer(std::move(entry_pointer)),
      path(Resolve(SDK::JsonUtils::GetStringValue(entry, "filepath", ""))),
      backup(Resolve(SDK::JsonUtils::GetStringValue(entry, "backup_path", ""))) {
    Json::Value list;
    if (!SDK::JsonUtils::GetArrayValue(entry, "ignored_subdir", list)) return;
    for (const Json::Value& element : list) {
        std::string subdir = element.isString() ? element.asString() : std::string();
        SDK::StrUtils::Trim(subdir);
        if (!subdir.empty() && subdir.front() == '/') subdir.erase(0, 1);
        excluded.push_back(path.string() + "/" + subdir);
    }
}

bool ProtectedPlace::IsExcluded(const std::string& name) const {
    return std::any_of(excluded.begin(), excluded.end(), [&name](const std::string& prefix) {
        return SDK::StrUtils::BeginsWith(name, prefix);
    });
}

bool ProtectedPlace::IsMeantByExclusion(const std::string& name) const {
    return std::any_of(excluded.begin(), excluded.end(), [&name](const std::string& prefix) {
        const fs::path subdir(prefix);
        return IsWithin(name, subdir.has_filename() ? subdir : subdir.parent_path());
    });
}

bool ProtectedPlace::IsKeptFromBackup(const std::string& name) const {
    const std::size_t root = path.string().size();
    return std::any_of(excluded.begin(), excluded.end(), [&](const std::string& full) {
        std::string ending = full.substr(root);
        if (ending.back() == '/') ending.pop_back();
        return ending.size() > 1 && name.size() >= root + ending.size() &&
               SDK::StrUtils::EndsWith(name, ending);
    });
}

void CheckHowPlacesLie(const std::vector<ProtectedPlace>& places, PolicyFindings& findings) {
    const std::size_t compared = std::min(places.size(), kMaxCompared);
    if (compared < places.size()) {
        findings.Warning(places[compared].pointer,
                         "how this and the following paths lie to each other was not looked at");
    }
    for (std::size_t at = 0; at < places.size(); ++at) {
        const ProtectedPlace& place = places[at];
        CheckBackupWithin(place, place, findings);
        if (!place.backup.empty() && IsWithin(place.path, place.backup) &&
            place.path != place.backup) {
            findings.Error(PointerTo(place.pointer, "backup_path"),
                           "holds the protected path itself");
        }
        if (at >= compared) continue;
        for (std::size_t other = 0; other < compared; ++other) {
            if (other != at) CheckBackupWithin(place, places[other], findings);
            if (other < at) ComparePlaces(place, places[other], findings);
        }
    }
}

}  // namespace Engine
