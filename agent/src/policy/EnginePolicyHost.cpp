#include <sdk/text/JsonUtils.h>

#include <algorithm>

#include "policy/PolicyHost.h"

namespace Agent {

namespace {

constexpr char kCheckPrefix[] = "policy.check.";
constexpr char kCompletePrefix[] = "policy.complete.";

}  // namespace

std::vector<std::string> EnginePolicyHost::Features() const {
    std::vector<std::string> features;
    for (const std::string& name : engine_.Queries().Names(kCheckPrefix)) {
        features.push_back(name.substr(sizeof(kCheckPrefix) - 1));
    }
    std::sort(features.begin(), features.end());
    return features;
}

bool EnginePolicyHost::Check(const std::string& feature, const std::string& text, Scope scope,
                             Json::Value& answer) {
    Json::Value request;
    request["text"] = text;
    request["places_only"] = scope == Scope::kPlaces;
    request["to_apply"] = scope == Scope::kToApply;
    return engine_.Queries().Ask(kCheckPrefix + feature, request, answer) && answer.isObject();
}

std::string EnginePolicyHost::Completed(const std::string& feature, const std::string& text,
                                        const std::string& last) {
    const std::string query = kCompletePrefix + feature;
    if (engine_.Queries().Names(query).empty()) return text;
    Json::Value request;
    request["text"] = text;
    request["last"] = last;
    Json::Value answer;
    if (!engine_.Queries().Ask(query, request, answer)) return text;
    return SDK::JsonUtils::GetStringValue(answer, "text", text.c_str());
}

Framework::PolicyOutcome EnginePolicyHost::Apply(const std::string& feature,
                                                 const std::string& text,
                                                 Framework::PolicyOrigin origin) {
    return engine_.ApplyPolicy(feature, text, origin);
}

}  // namespace Agent
