// Checks the protected paths of a policy. It must not change anything. Stateless; any thread.
#include "feature_sentrel/policy_check/PolicyDirListCheck.h"

#include <sdk/files/PlaceTrust.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <filesystem>
#include <string>
#include <vector>

#include "feature_sentrel/policy_check/ConfiguredPaths.h"
#include "feature_sentrel/policy_check/PolicyTreeCheck.h"
#include "places/TrustedPlaces.h"

namespace Engine {

namespace {

namespace fs = std::filesystem;
using SDK::JsonUtils;

/// The reasons why entries are useless. They are warnings while another entry is left, else errors.
using Faults = std::vector<PolicyFinding>;

bool HasDotComponent(const std::string& path) {
    const std::string framed = path + "/";
    return framed.find("/./") != std::string::npos || framed.find("/../") != std::string::npos;
}

std::string WhyNotProtected(const std::string& path) {
    std::error_code error;
    if (path.front() != '/') return "must be an absolute path";
    const fs::file_status target = fs::status(path, error);
    if (!fs::exists(target)) {
        return "does not exist now: it is not protected until the policy is applied again";
    }
    if (!fs::is_directory(target) && !fs::is_regular_file(target)) {
        return "is neither a directory nor a regular file";
    }
    if (HasDotComponent(path)) {
        return "must be written without \".\" and \"..\": rsync cannot copy it so";
    }
    return "";
}

/// True when the entry can be protected.
bool CheckProtectedPath(const std::string& path, const std::string& place, Faults& faults,
                        PolicyFindings& findings) {
    const std::string fault = WhyNotProtected(path);
    if (!fault.empty()) {
        faults.push_back({place, fault});
        return false;
    }
    if (const std::string why = SDK::PlaceTrust::WhyReplaceable(path); !why.empty()) {
        findings.Warning(place, "others can put something else in its place: " + why);
    }
    return true;
}

std::string WhyNoBackupPath(const std::string& path) {
    std::error_code error;
    if (path.empty()) return "is missing: auto_restore needs a backup copy";
    if (path.front() != '/') return "must be an absolute path";
    fs::path name = path;
    if (!name.has_filename()) name = name.parent_path();
    const bool taken = fs::exists(fs::symlink_status(name, error));
    return taken && !fs::is_directory(name, error) ? "is not a directory" : "";
}

/// True when copies can be kept there.
bool CheckBackupPath(const Json::Value& entry, const std::string& pointer, Faults& faults,
                     PolicyFindings& findings) {
    const std::string place = PointerTo(pointer, "backup_path");
    const std::string path = JsonUtils::GetStringValue(entry, "backup_path", "");
    if (path.empty() && !JsonUtils::GetBoolValue(entry, "auto_restore", false)) {
        findings.Warning(place, "is missing: changes can only be seen against a backup copy");
        return true;
    }
    const std::string fault = WhyNoBackupPath(path);
    if (!fault.empty()) {
        faults.push_back({place, fault});
        return false;
    }
    return true;
}

/// The entry protects a single file whose name ends so.
bool IsFileEndingIn(const Json::Value& entry, const std::string& ending) {
    std::error_code error;
    const std::string path = JsonUtils::GetStringValue(entry, "filepath", "");
    if (!fs::is_regular_file(path, error)) return false;
    const std::string name = fs::canonical(path, error).filename().string();
    return name.size() >= ending.size() &&
           name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

/// Why rsync does not take an exclusion literally; empty when it does.
std::string WhyPattern(const std::string& exclusion, bool subdir) {
    const std::size_t special = exclusion.find_first_of("*?[\\");
    if (special != std::string::npos) {
        return std::string("the backup takes the ") + exclusion[special] +
               " for part of a pattern, the watch for part of the name";
    }
    const std::string start = exclusion.substr(0, 2);
    if (!subdir || (start != "- " && start != "+ " && exclusion != "!")) return "";
    return "the backup does not take this for a name";
}

/// Reads an element of a list of texts as the module does.
std::string AsText(const Json::Value& value) {
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

void CheckExclusion(const Json::Value& entry, bool subdir, std::string exclusion,
                    const std::string& place, PolicyFindings& findings) {
    SDK::StrUtils::Trim(exclusion);
    if (subdir && exclusion.empty()) {
        findings.Error(place, "must not be empty");
        return;
    }
    if (exclusion.empty() || (subdir && exclusion == "/")) {
        findings.Warning(place, "excludes everything: nothing of this path is protected");
    }
    if (!subdir && !exclusion.empty() && IsFileEndingIn(entry, exclusion)) {
        findings.Warning(place, "excludes the protected file itself: nothing is protected");
    }
    const std::string why = WhyPattern(exclusion, subdir);
    if (!why.empty()) findings.Warning(place, why);
}

void CheckExclusions(const Json::Value& entry, const std::string& pointer,
                     PolicyFindings& findings) {
    for (const char* key : {"ignored_postfix", "ignored_subdir"}) {
        Json::Value list;
        if (!JsonUtils::GetArrayValue(entry, key, list)) continue;
        const bool subdirs = std::string(key) == "ignored_subdir";
        for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
            CheckExclusion(entry, subdirs, AsText(list[at]), PointerTo(PointerTo(pointer, key), at),
                           findings);
        }
    }
}

/// True when the entry is useful.
bool CheckEntry(const Json::Value& entry, const std::string& pointer, Faults& faults,
                PolicyFindings& findings) {
    const std::string place = PointerTo(pointer, "filepath");
    const std::string path = JsonUtils::GetStringValue(entry, "filepath", "");
    if (path.empty()) {
        findings.Error(place, "must not be empty");
        return false;
    }
    std::error_code error;
    if (fs::exists(path, error)) CheckExclusions(entry, pointer, findings);
    const bool has_backup = CheckBackupPath(entry, pointer, faults, findings);
    return CheckProtectedPath(path, place, faults, findings) && has_backup;
}

}  // namespace

void CheckCopyPlaces(const Json::Value& content, const std::string& pointer,
                     PolicyFindings& findings) {
    Json::Value list;
    if (!JsonUtils::GetArrayValue(content, "dirlist", list)) return;
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        const std::string path = JsonUtils::GetStringValue(list[at], "backup_path", "");
        if (!JsonUtils::GetBoolValue(list[at], "enable", false) || path.empty() ||
            path.front() != '/') {
            continue;
        }
        const std::string place =
            PointerTo(PointerTo(PointerTo(pointer, "dirlist"), at), "backup_path");
        const std::string writable = SDK::PlaceTrust::WhyWritable(path);
        const std::string reachable = TrustedPlaces::WhyNotForCopies(path);
        if (!writable.empty()) {
            findings.Error(place, "is not safe from other users: " + writable);
        } else if (!reachable.empty()) {
            findings.Warning(place, "lets other users reach the copies: " + reachable +
                                        "; a folder that holds only copies gets the mode 0700 with "
                                        "the first backup, in any other nothing is copied");
        }
    }
}

void CheckDirList(const Json::Value& content, const std::string& pointer,
                  PolicyFindings& findings) {
    const std::string base = PointerTo(pointer, "dirlist");
    Json::Value list;
    if (!JsonUtils::GetArrayValue(content, "dirlist", list)) {
        findings.Warning(base, "is missing: the paths of the policy before this one stay");
        return;
    }
    std::vector<ProtectedPlace> places;
    Faults faults;
    std::size_t enabled = 0;
    std::size_t useful = 0;
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        const Json::Value& entry = list[at];
        if (!JsonUtils::GetBoolValue(entry, "enable", false)) continue;
        const std::string place = PointerTo(base, at);
        ++enabled;
        if (CheckEntry(entry, place, faults, findings)) ++useful;
        if (fs::path(JsonUtils::GetStringValue(entry, "filepath", "")).is_absolute()) {
            places.emplace_back(entry, place);
        }
    }
    if (enabled == 0) findings.Warning(base, "has no enabled entry: protection goes off");
    std::vector<PolicyFinding>& told = useful == 0 ? findings.errors : findings.warnings;
    told.insert(told.end(), faults.begin(), faults.end());
    CheckCopyPlaces(content, pointer, findings);
    CheckHowPlacesLie(places, findings);
    CheckNamesBelow(places, findings);
}

}  // namespace Engine
