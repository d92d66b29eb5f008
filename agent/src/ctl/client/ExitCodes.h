#pragma once

namespace Ctl {

/// Exit codes of morvanectl.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  ///< a tasklet's result, an unreadable file, an invalid answer
constexpr int kExitUsage = 2;
constexpr int kExitDifferences = 2;   ///< what was compared is not equal
constexpr int kExitDegraded = 1;      ///< status: some change may not be undone
constexpr int kExitNotProtected = 2;  ///< status: nothing is undone now, or no agent answers
constexpr int kExitWarnings = 1;      ///< doctor
constexpr int kExitProblems = 2;      ///< doctor
constexpr int kExitOff = 3;           ///< the policy was accepted, its feature is off
constexpr int kExitRejected = 4;      ///< the policy was refused, or the tasklet is unknown
constexpr int kExitNoAgent = 5;
constexpr int kExitInterrupted = 130;  ///< by Ctrl-C, while the agent goes on

// Of deploy, beside those of its command.
constexpr int kExitRefused = 122;        ///< before the command was started
constexpr int kExitDeclined = 123;       ///< the answer at the terminal was no
constexpr int kExitTimedOut = 124;       ///< the command took too long
constexpr int kExitNotDeployed = 125;    ///< for another reason
constexpr int kExitNotExecutable = 126;  ///< the command
constexpr int kExitNotFound = 127;       ///< the command
constexpr int kExitSignal = 128;         ///< plus the number of the signal

}  // namespace Ctl
