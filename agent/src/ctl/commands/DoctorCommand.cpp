#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/doctor/AgentChecks.h"
#include "ctl/doctor/HostChecks.h"
#include "ctl/doctor/ServerChecks.h"

namespace Ctl {

int Examine(const ControlClient& client, bool json) {
    Findings findings;
    CheckAgent(client.Get("/v1/status"), SDK::TimeUtils::GetCurrentTimestampS() * 1000, findings);
    for (const auto check : {CheckUnit, CheckPolicyFiles, CheckPlaces, CheckApprovedStates,
                             CheckDisks, CheckWatchLimit, CheckHost, CheckBackupServer}) {
        check(findings);
    }
    if (json) {
        std::cout << SDK::JsonUtils::JsonToString(FindingsObject(findings)) << std::endl;
    } else {
        std::cout << FormatFindings(findings) << std::flush;
    }
    switch (findings.Worst()) {
        case Finding::Level::kOk:
            return kExitOk;
        case Finding::Level::kWarning:
            return kExitWarnings;
        case Finding::Level::kProblem:
            break;
    }
    return kExitProblems;
}

}  // namespace Ctl
