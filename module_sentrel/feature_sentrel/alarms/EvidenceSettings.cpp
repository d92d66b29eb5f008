#include "feature_sentrel/alarms/EvidenceSettings.h"

#include <fnmatch.h>
#include <sdk/files/PathUtils.h>

#include <algorithm>

#include "base/PathText.h"
#include "utils/SettingsSection.h"

namespace Engine {

namespace {

constexpr int kMostMegabytes = 1'000'000;
constexpr int kMostDays = 3650;
constexpr std::uint64_t kMegabyte = 1024 * 1024;

bool AreTexts(const Json::Value& list) {
    return list.isArray() && std::all_of(list.begin(), list.end(), [](const Json::Value& one) {
               return one.isString() && !one.asString().empty();
           });
}

void ReadSecretFiles(const Json::Value& section, std::vector<std::string>& patterns) {
    const Json::Value& list = section["secret_files"];
    if (list.isNull()) return;
    if (!AreTexts(list)) {
        SettingsSection::Warn("secret_files", "a list of patterns");
        return;
    }
    patterns.clear();
    for (const Json::Value& pattern : list) patterns.push_back(pattern.asString());
}

}  // namespace

EvidenceSettings EvidenceSettings::Read() {
    const Json::Value section = SettingsSection::Read();
    EvidenceSettings settings;
    int megabytes = 0;
    if (SettingsSection::ReadNumber(section, "evidence_mb", 0, kMostMegabytes, megabytes)) {
        settings.is_kept = megabytes > 0;
        settings.limits.most_bytes = static_cast<std::uint64_t>(megabytes) * kMegabyte;
    }
    SettingsSection::ReadNumber(section, "evidence_days", 1, kMostDays, settings.limits.most_days);
    ReadSecretFiles(section, settings.secret_files);
    return settings;
}

bool EvidenceSettings::IsSecret(const std::string& path) const {
    const std::string name = FileName(path);
    return std::any_of(secret_files.begin(), secret_files.end(), [&](const std::string& pattern) {
        const std::string& text = pattern.find('/') == std::string::npos ? name : path;
        return ::fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
    });
}

std::string EvidenceSettings::Directory() {
    return Evidence::EvidenceStore::Directory(SDK::PathUtils::GetInstallationPath());
}

}  // namespace Engine
