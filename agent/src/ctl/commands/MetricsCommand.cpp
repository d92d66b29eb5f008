#include <iostream>

#include "common/PrometheusText.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"

namespace Ctl {

int ShowMetrics(const ControlClient& client) {
    const Answer answer = client.Get("/v1/status");
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    std::cout << Agent::FormatMetrics(answer.body) << std::flush;
    return kExitOk;
}

}  // namespace Ctl
