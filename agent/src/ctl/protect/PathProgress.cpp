#include "ctl/protect/PathProgress.h"

#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>

#include <array>

#include "ctl/output/JsonFields.h"

namespace Ctl {

using SDK::JsonUtils;
using SDK::PathUtils;

namespace {

constexpr char kCannotComplete[] = "the backup copy cannot be completed";

bool IsOf(const Json::Value& entry, const std::string& path) {
    for (const char* key : {"configured_path", "path"}) {
        const std::string known = JsonUtils::GetStringValue(entry, key, "");
        if (!known.empty() && PathUtils::WithoutTrailingSlash(known) == path) return true;
    }
    return false;
}

/// The reasons that concern the path of `entry`.
Json::Value ReasonsOf(const Json::Value& status, const Json::Value& entry) {
    Json::Value found(Json::arrayValue);
    Json::Value health;
    if (!JsonUtils::GetSubobjectValue(status, "health", health)) return found;
    for (const Json::Value& reason : health["reasons"]) {
        if (Text(reason, "path") == Text(entry, "path")) found.append(reason);
    }
    return found;
}

bool Has(const Json::Value& reasons, const char* code) {
    for (const Json::Value& reason : reasons) {
        if (JsonUtils::GetStringValue(reason, "code", "") == code) return true;
    }
    return false;
}

PathProgress::Stage StageOf(const Json::Value& status, const Json::Value& reasons) {
    using Stage = PathProgress::Stage;
    if (!Flag(status["protection"], "working")) return Stage::kPaused;
    if (Has(reasons, "walking") || Has(reasons, "not_watched") || Has(reasons, "missing")) {
        return Stage::kWatching;
    }
    return Has(reasons, "backup_incomplete") ? Stage::kCopying : Stage::kReady;
}

}  // namespace

PathProgress ProgressOf(const Json::Value& status, const std::string& path) {
    PathProgress progress;
    if (!Flag(status["protection"], "on")) return progress;
    for (const Json::Value& entry : status["protected_paths"]) {
        if (!IsOf(entry, path)) continue;
        const Json::Value reasons = ReasonsOf(status, entry);
        progress.stage = StageOf(status, reasons);
        progress.copies = PathUtils::WithoutTrailingSlash(
            PathUtils::WithoutTrailingSlash(JsonUtils::GetStringValue(entry, "backup_path", "")) +
            JsonUtils::GetStringValue(entry, "path", ""));
        if (progress.stage == PathProgress::Stage::kReady) progress.reasons = reasons;
        for (const Json::Value& reason : reasons) {
            const std::string text = Text(reason, "text");
            if (text.rfind(kCannotComplete, 0) == 0 ||
                JsonUtils::GetStringValue(reason, "code", "") == "missing") {
                progress.problem = text;
            }
        }
        return progress;
    }
    return progress;
}

std::string WhyNothingCanBeApproved(const Json::Value& status, const std::string& leaving) {
    static constexpr std::array<const char*, 3> kUndecided = {"held", "not_in_place", "not_undone"};
    Json::Value health;
    if (!JsonUtils::GetSubobjectValue(status, "health", health)) return "";
    for (const Json::Value& reason : health["reasons"]) {
        const std::string code = JsonUtils::GetStringValue(reason, "code", "");
        const std::string path =
            PathUtils::WithoutTrailingSlash(JsonUtils::GetStringValue(reason, "path", ""));
        if (!leaving.empty() && (path.empty() || path == leaving)) continue;
        for (const char* undecided : kUndecided) {
            if (code != undecided) continue;
            return (path.empty() ? "" : Text(reason, "path") + ": ") + Text(reason, "text");
        }
    }
    return "";
}

}  // namespace Ctl
