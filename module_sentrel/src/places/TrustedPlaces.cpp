// Owns the last findings about the places that the module relies on. It must not act on them: the
// users of a place ask before they open it, and the policy check refuses documents. Any thread.
#include "places/TrustedPlaces.h"

#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/log/Log.h>

#include <utility>

#include "base/ModuleLogger.h"

namespace Engine {

using SDK::PlaceTrust;

std::string TrustedPlaces::WhyNotForCopies(const std::string& backup_path) {
    return PlaceTrust::WhyReachable(backup_path);
}

std::string TrustedPlaces::WhyNotInstallation() {
    const std::string path = SDK::PathUtils::GetInstallationPath();
    for (const char* folder : {"", "bin", "conf", "data"}) {
        std::string why = PlaceTrust::WhyWritable(path + folder);
        if (!why.empty()) return why;
    }
    return "";
}

void TrustedPlaces::Judge(const std::list<SentrelDirRule>& rules) {
    std::map<std::string, std::string> reasons;
    const auto note = [&reasons](const std::string& path, const std::string& why) {
        if (!why.empty()) reasons[path] = why;
    };
    note(SDK::PathUtils::GetInstallationPath(), WhyNotInstallation());
    for (const SentrelDirRule& rule : rules) {
        if (!rule.backup_path.empty()) note(rule.backup_path, WhyNotForCopies(rule.backup_path));
    }
    for (const auto& [path, why] : reasons) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s is not safe from other users: %s.", path, why);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    reasons_ = std::move(reasons);
}

Json::Value TrustedPlaces::ToJson() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value list(Json::arrayValue);
    for (const auto& [path, why] : reasons_) {
        Json::Value place(Json::objectValue);
        place["path"] = path;
        place["reason"] = why;
        list.append(std::move(place));
    }
    return list;
}

void TrustedPlaces::Reset() {
    const std::lock_guard<std::mutex> lock(mutex_);
    reasons_.clear();
}

}  // namespace Engine
