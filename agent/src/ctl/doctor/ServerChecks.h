#pragma once

#include "ctl/doctor/Findings.h"

namespace Ctl {

/// The backup server that this host pushes to, or that it is: its name, its port, the passwords.
/// Adds nothing on a host that has neither. Connects to it; blocks for some seconds at most for
/// each, and as long as the system looks for a name.
void CheckBackupServer(Findings& findings);

}  // namespace Ctl
