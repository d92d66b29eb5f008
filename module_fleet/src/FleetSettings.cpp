#include "FleetSettings.h"

#include <fleet/Topics.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>

namespace Engine {

namespace {

constexpr long kMostKeyBytes = 16 * 1024;

bool TakeNumber(const Json::Value& section, const char* key, int least, int most, int& value,
                std::string& error) {
    const Json::Value& member = section[key];
    if (member.isNull()) return true;
    if (member.isInt() && member.asInt() >= least && member.asInt() <= most) {
        value = member.asInt();
        return true;
    }
    error = std::string("/fleet/") + key + ": must be an integer from " + std::to_string(least) +
            " to " + std::to_string(most);
    return false;
}

bool TakePolicyKey(const Json::Value& member, FleetSettings& settings, std::string& error) {
    if (member.isNull()) return true;
    std::string pem;
    if (member.isString()) {
        const std::string path = SDK::PathUtils::BelowInstallation(member.asString());
        if (SDK::FileUtils::ReadFile(path, pem, kMostKeyBytes) == 0) {
            settings.policy_key = SDK::SigningKey::Read(pem);
        }
    }
    if (settings.policy_key != nullptr) return true;
    error = "/fleet/policy_key: must name a file with an Ed25519 public key";
    return false;
}

bool TakeGroups(const Json::Value& member, FleetSettings& settings, std::string& error) {
    constexpr Json::ArrayIndex kMostGroups = 32;
    bool is_good = member.isNull() || (member.isArray() && member.size() <= kMostGroups);
    for (const Json::Value& group : member) {
        is_good = is_good && group.isString() && Fleet::IsLeaf(group.asString());
        if (is_good) settings.groups.push_back(group.asString());
    }
    if (!is_good) {
        error = "/fleet/groups: must be at most " + std::to_string(kMostGroups) +
                " names of letters, digits, \"_\", \"-\" and \".\"";
    }
    return is_good;
}

void MakeAbsolute(std::string& path) {
    if (!path.empty()) path = SDK::PathUtils::BelowInstallation(path);
}

bool IsKnown(const std::string& key) {
    for (const char* known : {"broker", "policy_key", "groups", "heartbeat_seconds", "window"}) {
        if (key == known) return true;
    }
    return false;
}

}  // namespace

bool ReadFleetSettings(const Json::Value& section, const std::string& agent_id,
                       FleetSettings& settings, std::string& error) {
    for (const std::string& key : section.getMemberNames()) {
        if (IsKnown(key)) continue;
        error = "/fleet/" + key + ": unknown key";
        return false;
    }
    if (!Fleet::ReadBrokerSettings(section["broker"], "/fleet/broker", settings.broker, error) ||
        !TakeNumber(section, "heartbeat_seconds", 1, 30, settings.heartbeat_s, error) ||
        !TakeNumber(section, "window", 1, 1000, settings.window, error) ||
        !TakeGroups(section["groups"], settings, error) ||
        !TakePolicyKey(section["policy_key"], settings, error)) {
        return false;
    }
    MakeAbsolute(settings.broker.ca_file);
    MakeAbsolute(settings.broker.cert_file);
    MakeAbsolute(settings.broker.key_file);
    MakeAbsolute(settings.broker.password_file);
    if (settings.broker.user.empty()) settings.broker.user = agent_id;
    return true;
}

}  // namespace Engine
