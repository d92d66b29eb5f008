#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/HealthFormat.h"
#include "ctl/output/StatusFormat.h"

namespace Ctl {

namespace {

int ExitCodeOf(Health health) {
    switch (health) {
        case Health::kHealthy:
            return kExitOk;
        case Health::kDegraded:
            return kExitDegraded;
        case Health::kOff:
            break;
    }
    return kExitNotProtected;
}

}  // namespace

int ShowStatus(const ControlClient& client, bool json) {
    const Answer answer = client.Get("/v1/status");
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        PrintFailure(answer);
        return kExitNotProtected;
    }
    if (json) {
        std::cout << SDK::JsonUtils::JsonToString(answer.body) << std::endl;
    } else {
        const long long now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
        std::cout << FormatStatus(answer.body, now_ms) << std::flush;
    }
    return ExitCodeOf(HealthOf(answer.body));
}

}  // namespace Ctl
