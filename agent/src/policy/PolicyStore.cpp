// Owns the files of the stored policies. Must not check a policy (PolicyService does). Runs on
// the callers' threads.
#include "policy/PolicyStore.h"

#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "common/ControlProtocol.h"

namespace Agent {

namespace {

constexpr std::size_t kMaxNameLength = 64;
constexpr char kSuffix[] = ".json";

bool IsNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

}  // namespace

bool IsFeatureName(const std::string& name) {
    return !name.empty() && name.size() <= kMaxNameLength && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), IsNameCharacter);
}

PolicyStore::PolicyStore(const std::string& directory) : directory_(directory) {}

bool PolicyStore::Save(const std::string& feature, const std::string& text,
                       std::string& error) const {
    if (!IsFeatureName(feature)) {
        error = "not a feature name";
        return false;
    }
    if (SDK::DirUtils::MakeDirs(directory_, 0700) == 0 &&
        SDK::FileUtils::WriteFile(FileOf(feature), text, false) == 0) {
        return true;
    }
    error = FileOf(feature) + ": " + std::strerror(errno);
    return false;
}

bool PolicyStore::Load(const std::string& feature, std::string& text) const {
    return IsFeatureName(feature) &&
           SDK::FileUtils::ReadFile(FileOf(feature), text, static_cast<long>(kMaxBodyBytes)) == 0;
}

std::vector<std::string> PolicyStore::Features() const {
    std::vector<std::string> features;
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator(directory_, failed)) {
        const std::string name = entry.path().filename().string();
        if (!SDK::StrUtils::EndsWith(name, kSuffix)) continue;
        const std::string feature = name.substr(0, name.size() - std::string_view(kSuffix).size());
        if (IsFeatureName(feature)) features.push_back(feature);
    }
    std::sort(features.begin(), features.end());
    return features;
}

std::string PolicyStore::FileOf(const std::string& feature) const {
    return directory_ + "/" + feature + kSuffix;
}

}  // namespace Agent
