#include "ctl/doctor/WatchedPlaces.h"

#include <sdk/text/JsonUtils.h>

#include "ctl/baselines/PolicyPaths.h"

namespace Ctl {

using SDK::JsonUtils;

std::vector<WatchedPlace> WatchedPlaces() {
    const Json::Value content = KeptPolicyContent("sentrel_feature");
    Json::Value entries;
    std::vector<WatchedPlace> places;
    if (!content.isObject() || !JsonUtils::GetArrayValue(content, "dirlist", entries))
        return places;
    for (const Json::Value& entry : entries) {
        const std::string path = JsonUtils::GetStringValue(entry, "filepath", "");
        if (!JsonUtils::GetBoolValue(entry, "enable", false) || path.empty()) continue;
        places.push_back({path, JsonUtils::GetStringValue(entry, "backup_path", "")});
    }
    return places;
}

}  // namespace Ctl
