#include <Poco/Net/HTTPRequest.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/client/Input.h"
#include "ctl/client/PolicyApi.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using Poco::Net::HTTPRequest;
using SDK::JsonUtils;

namespace {

/// A tasklet may wait for a policy, and for tasks that run commands.
constexpr int kTaskletTimeoutS = 300;
constexpr int kUnknown = 404;
constexpr int kTooLarge = 413;
constexpr int kBadRequest = 400;

bool Read(const std::string& file, std::string& text) {
    std::string error;
    if (ReadInput(file, text, error)) return true;
    std::cerr << error << std::endl;
    return false;
}

}  // namespace

void PrintMessages(const char* title, const Json::Value& messages) {
    for (const Json::Value& message : messages) {
        const std::string pointer = JsonUtils::GetStringValue(message, "pointer", "");
        std::cerr << title << ": " << Printable(pointer) << (pointer.empty() ? "" : ": ")
                  << Printable(JsonUtils::GetStringValue(message, "message", "")) << "\n";
    }
}

int PrintFailure(const Answer& answer) {
    std::cerr << Printable(answer.problem) << std::endl;
    return answer.kind == Answer::Kind::kNoAgent || answer.kind == Answer::Kind::kDenied
               ? kExitNoAgent
               : kExitFailed;
}

int ApplyPolicy(const ControlClient& client, const std::string& feature, const std::string& file,
                const std::string& key) {
    std::string text;
    if (!Read(file, text)) return kExitFailed;
    const int lent = LendKey(client, key);
    if (lent != kExitOk) return lent;
    const Answer answer = ApplyPolicyText(client, feature, text);
    if (answer.kind != Answer::Kind::kAnswered) return PrintFailure(answer);
    if (answer.status != 200 && answer.status != kPolicyRefused) {
        const bool refused = answer.status == kBadRequest || answer.status == kTooLarge;
        std::cerr << "error: " << Printable(answer.problem) << std::endl;
        return refused ? kExitRejected : kExitFailed;
    }
    PrintMessages("warning", answer.body["warnings"]);
    PrintMessages("error", answer.body["errors"]);
    const std::string state = JsonUtils::GetStringValue(answer.body, "state", "");
    std::cout << Printable(feature) << ": " << Printable(state) << std::endl;
    if (answer.status == kPolicyRefused) return kExitRejected;
    return state == "on" ? kExitOk : kExitOff;
}

int CheckPolicy(const ControlClient& client, const std::string& feature, const std::string& file) {
    std::string text;
    if (!Read(file, text)) return kExitFailed;
    const Answer answer = CheckPolicyText(client, feature, text);
    if (answer.kind != Answer::Kind::kAnswered) return PrintFailure(answer);
    if (answer.status != 200) {
        std::cerr << "error: " << Printable(answer.problem) << std::endl;
        return kExitRejected;
    }
    PrintMessages("warning", answer.body["warnings"]);
    PrintMessages("error", answer.body["errors"]);
    const bool good = answer.body["errors"].empty();
    std::cout << Printable(feature) << (good ? ": no errors" : ": would be rejected") << std::endl;
    return good ? kExitOk : kExitRejected;
}

int ShowPolicy(const ControlClient& client, const std::string& feature) {
    const Answer answer = GetPolicy(client, feature);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    const std::string text = JsonUtils::GetStringValue(answer.body, "text", "");
    std::cout << text << (text.empty() || text.back() != '\n' ? "\n" : "") << std::flush;
    return kExitOk;
}

int ListPolicies(const ControlClient& client) {
    const Answer answer = client.Get("/v1/policies");
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    const long long now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    for (const Json::Value& policy : answer.body["policies"]) {
        const Json::Value& applied = policy["applied_at"];
        std::cout << Printable(JsonUtils::GetStringValue(policy, "feature", "")) << "  "
                  << Printable(JsonUtils::GetStringValue(policy, "state", ""));
        if (applied.isIntegral() && applied.asInt64() > 0) {
            std::cout << "  applied " << ShortTime(applied.asInt64() * 1000, now_ms);
        }
        std::cout << "\n";
    }
    std::cout << std::flush;
    return kExitOk;
}

int CallTasklet(const ControlClient& client, const std::string& id, const std::string& request,
                int& result) {
    const Answer answer = client.Send(HTTPRequest::HTTP_POST, "/v1/tasklets/" + Encoded(id),
                                      request, kTaskletTimeoutS);
    if (answer.kind != Answer::Kind::kAnswered) return PrintFailure(answer);
    if (answer.status == kUnknown) {
        std::cerr << Printable(answer.problem) << std::endl;
        return kExitRejected;
    }
    if (answer.status != 200) return PrintFailure(answer);
    result = JsonUtils::GetIntValue(answer.body, "result", -1);
    return kExitOk;
}

int RunTasklet(const ControlClient& client, const std::string& id) {
    std::string text;
    if (!Read("-", text)) return kExitFailed;
    int result = 0;
    const int exit_code = CallTasklet(client, id, text, result);
    if (exit_code != kExitOk) return exit_code;
    std::cout << result << std::endl;
    return result == 0 ? kExitOk : kExitFailed;
}

}  // namespace Ctl
