#include "store/ReportSettings.h"

#include <sdk/log/Log.h>

#include <array>

#include "store/ReportLog.h"

namespace Engine {
namespace {

struct Key {
    const char* name;
    int ReportSettings::*member;
    int max;
};

constexpr std::array<Key, 4> kKeys{{
    {"max_age_days", &ReportSettings::max_age_days, 3650},
    {"max_megabytes", &ReportSettings::max_megabytes, 1024 * 1024},
    {"alarms_rotate_megabytes", &ReportSettings::alarms_rotate_megabytes, 1024 * 1024},
    {"alarms_keep_files", &ReportSettings::alarms_keep_files, 100},
}};

void Take(const Key& key, const Json::Value& value, ReportSettings& settings) {
    if (value.isInt() && value.asInt() >= 1 && value.asInt() <= key.max) {
        settings.*key.member = value.asInt();
        return;
    }
    SDK_LOG(ReportLog(), PRIO_ERROR,
            "configuration: /report/%s must be an integer from 1 to %d; "
            "%d is used",
            std::string(key.name), key.max, settings.*key.member);
}

}  // namespace

ReportSettings ParseReportSettings(const Json::Value& section) {
    ReportSettings settings;
    if (!section.isObject()) {
        SDK_LOG(ReportLog(), PRIO_ERROR, "configuration: /report must be an object; defaults hold");
        return settings;
    }
    for (const std::string& name : section.getMemberNames()) {
        const Key* found = nullptr;
        for (const Key& key : kKeys) {
            if (name == key.name) found = &key;
        }
        if (found != nullptr) {
            Take(*found, section[name], settings);
        } else {
            SDK_LOG(ReportLog(), PRIO_ERROR, "configuration: /report/%s is unknown", name);
        }
    }
    return settings;
}

}  // namespace Engine
