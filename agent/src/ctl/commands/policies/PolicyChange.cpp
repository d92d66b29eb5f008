// Owns the policy text that a change begins with. It must not decide what is changed (the commands
// do).
#include "ctl/commands/policies/PolicyChange.h"

#include <sdk/text/JsonUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/client/PolicyApi.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/Question.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

/// kExitOk with the text of the kept policy; "" when there is none.
int ReadText(const ControlClient& client, std::string& text) {
    const Answer answer = GetPolicy(client, kProtectionFeature);
    if (answer.kind != Answer::Kind::kAnswered) return PrintFailure(answer);
    if (answer.status != 200 && answer.status != kPolicyUnknown) return PrintFailure(answer);
    if (answer.status == 200) text = JsonUtils::GetStringValue(answer.body, "text", "");
    return kExitOk;
}

}  // namespace

int PolicyChange::Read() {
    if (const int failed = ReadText(client_, text_); failed != kExitOk) return failed;
    if (!text_.empty()) {
        const auto known = ProtectionPolicy::Parse(text_);
        if (!known) {
            std::cerr << "The policy that is kept cannot be read; see morvanectl policy show "
                      << kProtectionFeature << "." << std::endl;
            return kExitFailed;
        }
        policy_ = *known;
    }
    const Answer answer = client_.Get("/v1/status");
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    status_ = answer.body;
    return kExitOk;
}

int PolicyChange::Check() const {
    const Answer answer = CheckPolicyText(client_, kProtectionFeature, policy_.Text());
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    PrintMessages("warning", answer.body["warnings"]);
    PrintMessages("error", answer.body["errors"]);
    return answer.body["errors"].empty() ? kExitOk : kExitRejected;
}

int PolicyChange::Apply(const std::string& key) const {
    std::string now;
    if (const int failed = ReadText(client_, now); failed != kExitOk) return failed;
    if (now != text_) {
        std::cerr << "The policy was changed meanwhile; nothing was done. Try again." << std::endl;
        return kExitRejected;
    }
    if (const int unlent = LendKey(client_, key); unlent != kExitOk) return unlent;
    const Answer answer = ApplyPolicyText(client_, kProtectionFeature, policy_.Text());
    if (answer.kind != Answer::Kind::kAnswered) return PrintFailure(answer);
    if (answer.status == kPolicyRefused) {
        PrintMessages("error", answer.body["errors"]);
        return kExitRejected;
    }
    if (answer.status != 200) return PrintFailure(answer);
    return JsonUtils::GetStringValue(answer.body, "state", "") == "on" ? kExitOk : kExitOff;
}

int AskToGoOn() {
    if (!IsAtTerminal()) {
        std::cerr << "Without a terminal to ask on, nothing was changed; add --yes." << std::endl;
        return kExitUsage;
    }
    std::cout << std::flush;
    if (Confirm("Go on?")) return kExitOk;
    std::cerr << "Nothing was changed." << std::endl;
    return kExitFailed;
}

}  // namespace Ctl
