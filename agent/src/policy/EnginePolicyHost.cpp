#include <sdk/JsonUtils.h>

#include <algorithm>

#include "policy/PolicyHost.h"

namespace Agent {

namespace {

constexpr char kCheckPrefix[] = "policy.check.";
constexpr char kReportQuery[] = "reports.read";
constexpr char kExceptionReport[] = "feature_exception_1";

/// The exception's text when the report is about `feature`. Bodies are not escaped by their
/// senders, so one that is no JSON is taken as it is when it names the feature.
std::string ExceptionText(const Json::Value& report, const std::string& feature) {
    const std::string body = SDK::JsonUtils::GetStringValue(report, "body", "");
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(body.data(), body.size(), document) == 0) {
        if (SDK::JsonUtils::GetStringValue(document, "feature", "") != feature) return "";
        return SDK::JsonUtils::GetStringValue(document, "exception", body.c_str());
    }
    return body.find("\"" + feature + "\"") != std::string::npos ? body : "";
}

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
    return engine_.Queries().Ask(kCheckPrefix + feature, request, answer) && answer.isObject();
}

Framework::PolicyOutcome EnginePolicyHost::Apply(const std::string& feature,
                                                 const std::string& text) {
    return engine_.ApplyPolicy(feature, text);
}

std::int64_t EnginePolicyHost::LastReport() {
    Json::Value request;
    request["kind"] = "cmd";
    request["limit"] = 1;
    Json::Value answer;
    if (!engine_.Queries().Ask(kReportQuery, request, answer)) return 0;
    const Json::Value& last = answer["last_seq"];
    return last.isIntegral() ? last.asInt64() : 0;
}

std::string EnginePolicyHost::ExceptionSince(std::int64_t after, const std::string& feature) {
    Json::Value request;
    request["kind"] = "cmd";
    request["after"] = static_cast<Json::Int64>(after);
    Json::Value answer;
    if (!engine_.Queries().Ask(kReportQuery, request, answer)) return "";
    for (const Json::Value& report : answer["reports"]) {
        if (SDK::JsonUtils::GetStringValue(report, "name", "") != kExceptionReport) continue;
        std::string text = ExceptionText(report, feature);
        if (!text.empty()) return text;
    }
    return "";
}

}  // namespace Agent
