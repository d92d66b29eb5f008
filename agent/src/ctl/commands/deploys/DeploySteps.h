#pragma once

#include <chrono>
#include <string>

#include "ctl/client/ControlClient.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/deploy/DeployClient.h"

namespace Ctl {

/// Steps that several commands on deploys share. They print to standard output and error.

/// Prints the sentence; returns the code.
int Refuse(const std::string& sentence, int code = kExitRefused);

/// Prints why the agent did not do it; returns the exit code.
int Refused(const Answer& answer);

/// The request of an operation on `path`.
Json::Value OperationOn(const std::string& path, std::chrono::seconds limit,
                        const std::string& reason);

/// Prints what was changed; how many changes there are, or a negative number when they cannot be
/// deployed.
long PrintStaged(const OpenDeploy& deploy);

/// Has the agent carry the deploy out and blocks until it has, and until a release link that was
/// switched is followed; returns the exit code.
int CommitAndAwait(const ControlClient& control, const OpenDeploy& deploy, const std::string& key);

}  // namespace Ctl
