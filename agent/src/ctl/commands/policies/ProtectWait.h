#pragma once

#include "ctl/client/ControlClient.h"
#include "ctl/protect/ProtectionPolicy.h"
#include "ctl/protect/TreeSurvey.h"

namespace Ctl {

/// Waits until the agent watches the path and has copied it, shows how far it is on standard error,
/// and prints the result. Ctrl-C ends only the waiting, with kExitInterrupted. Returns the exit
/// code.
int AwaitProtected(const ControlClient& client, const ProtectedEntry& entry,
                   const SurveyResult& survey);

}  // namespace Ctl
