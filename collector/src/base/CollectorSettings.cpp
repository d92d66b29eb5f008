#include "base/CollectorSettings.h"

#include <fleet/Topics.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Collector {

namespace {

constexpr long kMostBytes = 1024 * 1024;

struct NumberKey {
    const char* name;
    int CollectorSettings::*member;
    int least;
    int most;
};

constexpr std::array<NumberKey, 4> kNumberKeys{{
    {"silent_after_seconds", &CollectorSettings::silent_after_s, 2, 3600},
    {"keep_days", &CollectorSettings::keep_days, 1, 3650},
    {"max_megabytes_per_host", &CollectorSettings::max_megabytes_per_host, 1, 1024 * 1024},
    {"max_hosts", &CollectorSettings::max_hosts, 1, 1000 * 1000},
}};

bool TakeNumber(const NumberKey& key, const Json::Value& value, CollectorSettings& settings,
                std::string& fault) {
    fault =
        "must be an integer from " + std::to_string(key.least) + " to " + std::to_string(key.most);
    if (!value.isInt() || value.asInt() < key.least || value.asInt() > key.most) return false;
    settings.*key.member = value.asInt();
    return true;
}

bool Take(const std::string& name, const Json::Value& value, CollectorSettings& settings,
          std::string& fault) {
    for (const NumberKey& key : kNumberKeys) {
        if (name == key.name) return TakeNumber(key, value, settings, fault);
    }
    if (name == "database") {
        fault = "must be an absolute path";
        if (!value.isString() || value.asString().empty() || value.asString()[0] != '/')
            return false;
        settings.database = value.asString();
        return true;
    }
    if (name == "group") {
        fault = "must be made of letters, digits, \"_\", \"-\" and \".\"";
        if (!value.isString() || !Fleet::IsLeaf(value.asString())) return false;
        settings.group = value.asString();
        return true;
    }
    fault = "unknown key";
    return false;
}

bool TakeAll(const Json::Value& root, CollectorSettings& settings, std::string& error) {
    std::string fault;
    for (const std::string& name : root.getMemberNames()) {
        if (name == "broker" || Take(name, root[name], settings, fault)) continue;
        error = "/" + name + ": " + fault;
        return false;
    }
    return Fleet::ReadBrokerSettings(root["broker"], "/broker", settings.broker, error);
}

}  // namespace

bool ReadSettings(const std::string& file, CollectorSettings& settings, std::string& error) {
    std::string text;
    Json::Value root;
    if (SDK::FileUtils::ReadFile(file, text, kMostBytes) != 0) {
        error = std::strerror(errno);
    } else if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root, error) == 0) {
        error.clear();
        if (!root.isObject()) error = "it must be an object";
        if (error.empty() && TakeAll(root, settings, error)) return true;
    }
    error = file + ": " + error;
    return false;
}

}  // namespace Collector
