// Owns which messages a signed document becomes. Must not sign or verify.
#include "centre/Delivery.h"

#include <fleet/SignedAct.h>
#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <sdk/files/Sha256.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>

namespace Collector {

Fleet::Message Delivery::MessageTo(const std::string& agent_id, std::int64_t now_s) const {
    if (kind == Fleet::DocumentKind::kPolicy) {
        return {Fleet::PolicyTopic(agent_id, name), document, true};
    }
    const std::int64_t left_s =
        std::clamp<std::int64_t>(expires_s - now_s, 1, Fleet::SignedAct::kLongestS);
    return {Fleet::ActTopic(agent_id, std::to_string(number)),
            document,
            true,
            {},
            static_cast<std::uint32_t>(left_s)};
}

std::optional<Delivery> ReadDelivery(const std::string& document) {
    std::string content;
    if (!Fleet::ReadUnverified(document, content)) return std::nullopt;
    Delivery delivery;
    delivery.document = document;
    Fleet::SignedAct act;
    if (Fleet::ReadContent(content, act)) {
        delivery.kind = Fleet::DocumentKind::kAct;
        delivery.name = act.name;
        delivery.number = act.number;
        delivery.expires_s = act.expires_s;
        delivery.signer = act.signer;
        delivery.hosts = act.hosts;
        return delivery;
    }
    Fleet::SignedPolicy policy;
    if (!Fleet::ReadContent(content, policy)) return std::nullopt;
    delivery.name = policy.feature;
    delivery.number = policy.version;
    delivery.hosts = policy.hosts;
    return delivery;
}

std::string DigestOf(const std::string& document) {
    SDK::Sha256 digest;
    digest.Update(document.data(), document.size());
    return digest.Hex();
}

std::vector<std::string> TargetsOf(const Fleet::Audience& audience,
                                   const std::vector<HostRecord>& known, bool with_unknown) {
    std::vector<std::string> targets;
    for (const HostRecord& host : known) {
        if (Fleet::IsFor(audience, {host.agent_id, GroupsOf(host)})) {
            targets.push_back(host.agent_id);
        }
    }
    for (const std::string& one : audience) {
        if (with_unknown && Fleet::IsAgentId(one) &&
            std::find(targets.begin(), targets.end(), one) == targets.end()) {
            targets.push_back(one);
        }
    }
    return targets;
}

std::vector<std::string> GroupsOf(const HostRecord& host) {
    Json::Value state;
    Json::Value told;
    std::vector<std::string> groups;
    SDK::JsonUtils::ParseJsonStr(host.state.data(), host.state.size(), state);
    if (state.isObject()) SDK::JsonUtils::GetArrayValue(state, "groups", told);
    for (const Json::Value& group : told) {
        if (group.isString() && Fleet::IsLeaf(group.asString())) {
            groups.push_back(group.asString());
        }
    }
    return groups;
}

}  // namespace Collector
