#pragma once

#include "ctl/doctor/Findings.h"

namespace Ctl {

// What can be found out without an agent. Each adds at least one finding, changes nothing and asks
// no other host.

/// Who else can change the installation, the protected paths and their copies.
void CheckPlaces(Findings& findings);

/// The kept policies can be read.
void CheckPolicyFiles(Findings& findings);

/// The approved states can be used, and their copies are there.
void CheckApprovedStates(Findings& findings);

/// The file systems of installation, sites and copies: their kind, and the space on them.
void CheckDisks(Findings& findings);

/// The limits of inotify, beside the number of approved directories.
void CheckWatchLimit(Findings& findings);

/// The clock, the report store, the programs and the kernel.
void CheckHost(Findings& findings);

/// The agent's unit, where systemd runs and knows one.
void CheckUnit(Findings& findings);

}  // namespace Ctl
