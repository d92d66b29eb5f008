#pragma once

#include <fleet/BrokerSettings.h>
#include <json/value.h>
#include <sdk/text/SigningKey.h>

#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// The section "fleet" of conf/agent.json.
struct FleetSettings {
    Fleet::BrokerSettings broker;
    std::shared_ptr<const SDK::SigningKey>
        policy_key;                   ///< null: neither policies nor acts are taken
    std::vector<std::string> groups;  ///< for which the operator can sign, without "@"
    int heartbeat_s = 15;
    int window = 64;  ///< reports in flight
};

/// Reads the section; relative file names are below the installation path. `agent_id` is the
/// default of the broker's user. False with `error`.
bool ReadFleetSettings(const Json::Value& section, const std::string& agent_id,
                       FleetSettings& settings, std::string& error);

}  // namespace Engine
