// Checks the protected paths of a policy. Reads the file system, changes nothing, keeps nothing.
#include <CommandLineText.h>
#include <PolicyDirListCheck.h>
#include <PolicyTreeCheck.h>
#include <ProtectedPlaces.h>
#include <TrustedPlaces.h>
#include <sdk/JsonUtils.h>
#include <sdk/PlaceTrust.h>
#include <sdk/StrUtils.h>

#include <filesystem>

namespace Engine {

namespace {

namespace fs = std::filesystem;
using SDK::JsonUtils;

void CheckCarried(const std::string& path, const std::string& place, PolicyFindings& findings) {
    const std::string culprit = WhatBreaksPath(path);
    if (culprit.empty()) return;
    findings.Error(place, "the command line of rsync cannot carry " + culprit + " in " + path);
}

bool HasDotComponent(const std::string& path) {
    const std::string framed = path + "/";
    return framed.find("/./") != std::string::npos || framed.find("/../") != std::string::npos;
}

/// True when the path is one that can be looked up.
bool CheckProtectedName(const std::string& path, const std::string& place,
                        PolicyFindings& findings) {
    if (path.empty() || path.front() != '/') {
        findings.Error(place, path.empty() ? "must not be empty" : "must be an absolute path");
        return false;
    }
    if (HasDotComponent(path)) {
        findings.Error(place, "must be written without \".\" and \"..\"");
        return false;
    }
    CheckCarried(path, place, findings);
    return true;
}

void CheckProtectedObject(const std::string& path, const std::string& place,
                          PolicyFindings& findings) {
    std::error_code error;
    const fs::file_status target = fs::status(path, error);
    if (!fs::exists(target)) {
        findings.Warning(place,
                         "does not exist now: it is not protected until the policy is applied "
                         "again");
        return;
    }
    if (const std::string why = SDK::PlaceTrust::WhyReplaceable(path); !why.empty()) {
        findings.Warning(place, "others can put something else in its place: " + why);
    }
    const bool linked = fs::is_symlink(fs::symlink_status(path, error));
    if (!fs::is_directory(target) && !fs::is_regular_file(target)) {
        findings.Error(place, "is neither a directory nor a regular file");
    } else if (linked) {
        CheckCarried(fs::canonical(path, error).string(), place, findings);
    }
}

bool HasParent(fs::path path) {
    std::error_code error;
    if (!path.has_filename()) path = path.parent_path();
    return fs::is_directory(path.parent_path(), error);
}

void CheckBackupPath(const Json::Value& entry, const std::string& pointer,
                     PolicyFindings& findings) {
    const std::string place = PointerTo(pointer, "backup_path");
    const std::string path = JsonUtils::GetStringValue(entry, "backup_path", "");
    if (path.empty()) {
        if (JsonUtils::GetBoolValue(entry, "auto_restore", false)) {
            findings.Error(place, "is missing: auto_restore needs a backup copy");
        } else {
            findings.Warning(place, "is missing: changes can only be seen against a backup copy");
        }
        return;
    }
    if (path.front() != '/') {
        findings.Error(place, "must be an absolute path");
        return;
    }
    CheckCarried(path, place, findings);
    std::error_code error;
    if (fs::exists(path, error) && !fs::is_directory(path, error)) {
        findings.Error(place, "is not a directory");
    } else if (!fs::exists(path, error) && !HasParent(path)) {
        findings.Warning(place,
                         "neither it nor its parent directory exists: rsync makes one level only, "
                         "and every backup fails until the parent is there");
    }
}

/// The entry protects a single file whose name has that ending.
bool IsFileEndingIn(const Json::Value& entry, const std::string& ending) {
    std::error_code error;
    const std::string path = JsonUtils::GetStringValue(entry, "filepath", "");
    if (!fs::is_regular_file(path, error)) return false;
    const std::string name = fs::canonical(path, error).filename().string();
    return name.size() >= ending.size() &&
           name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

void CheckExclusions(const Json::Value& entry, const char* key, const std::string& pointer,
                     PolicyFindings& findings) {
    Json::Value list;
    if (!JsonUtils::GetArrayValue(entry, key, list)) return;
    const bool subdirs = std::string(key) == "ignored_subdir";
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        if (!list[at].isString()) continue;
        const std::string place = PointerTo(PointerTo(pointer, key), at);
        std::string exclusion = list[at].asString();
        SDK::StrUtils::Trim(exclusion);
        if (subdirs && exclusion.empty()) {
            findings.Error(place, "must not be empty");
            continue;
        }
        if (exclusion.empty() || (subdirs && exclusion == "/")) {
            findings.Warning(place, "excludes everything: nothing of this path is protected");
        }
        if (!subdirs && !exclusion.empty() && IsFileEndingIn(entry, exclusion)) {
            findings.Warning(place, "excludes the protected file itself: nothing is protected");
        }
        const std::string culprit = WhatBreaksExclusion(exclusion);
        if (culprit.empty()) continue;
        findings.Error(place, "the command line of rsync cannot carry " + culprit + " here");
    }
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
        const std::string why = TrustedPlaces::WhyNotForCopies(path);
        if (why.empty()) continue;
        findings.Error(PointerTo(PointerTo(PointerTo(pointer, "dirlist"), at), "backup_path"),
                       "is not safe from other users: " + why);
    }
}

void CheckDirList(const Json::Value& content, const std::string& pointer,
                  PolicyFindings& findings) {
    const std::string base = PointerTo(pointer, "dirlist");
    Json::Value list;
    if (!JsonUtils::GetArrayValue(content, "dirlist", list)) {
        if (!content.isMember("dirlist")) {
            findings.Warning(base, "is missing: the paths of the policy before this one stay");
        }
        return;
    }
    std::vector<ProtectedPlace> places;
    bool any_enabled = false;
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        const Json::Value& entry = list[at];
        if (!JsonUtils::GetBoolValue(entry, "enable", false)) continue;
        any_enabled = true;
        const std::string place = PointerTo(base, at);
        const std::string path = JsonUtils::GetStringValue(entry, "filepath", "");
        CheckBackupPath(entry, place, findings);
        CheckExclusions(entry, "ignored_postfix", place, findings);
        CheckExclusions(entry, "ignored_subdir", place, findings);
        if (!CheckProtectedName(path, PointerTo(place, "filepath"), findings)) continue;
        CheckProtectedObject(path, PointerTo(place, "filepath"), findings);
        places.emplace_back(entry, place);
    }
    if (!any_enabled) findings.Warning(base, "has no enabled entry: protection goes off");
    CheckCopyPlaces(content, pointer, findings);
    CheckHowPlacesLie(places, findings);
    CheckNamesBelow(places, findings);
}

}  // namespace Engine
