#pragma once

#include "ctl/client/ControlClient.h"
#include "ctl/doctor/Findings.h"

namespace Ctl {

/// What the answer to a request for the status says: that the agent answers, and what its health
/// and its warnings name. Of what is well there is a line for each subject.
void CheckAgent(const Answer& answer, long long now_ms, Findings& findings);

}  // namespace Ctl
