#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "ctl/client/ControlClient.h"

namespace Ctl {

struct DeployOptions {
    std::string path;
    std::vector<std::string> command;
    std::chrono::seconds limit{3600};
    std::string reason;
    bool yes = false;      ///< no question
    bool dry_run = false;  ///< only list
    std::string key = {};  ///< the file of the private key where it is kept elsewhere
};

struct PauseOptions {
    std::string path;
    std::chrono::seconds limit{1800};
    std::string reason;
    bool accept = false;
    bool restore = false;
    std::string key = {};
};

/// The commands on deploys and pauses. Each prints its result to standard output and errors to
/// standard error, and returns the exit code.

/// Runs the command in an overlay, shows what it has changed, asks and has the agent deploy it.
int RunDeploy(const ControlClient& client, const DeployOptions& options);

/// Mounts an overlay for several commands; prints its id and directory.
int BeginDeploy(const ControlClient& client, const DeployOptions& options);
/// `key` as in DeployOptions.
int CommitDeploy(const ControlClient& client, const std::string& id, bool yes,
                 const std::string& key);
/// Mounts the files of a deploy that a fleet's centre has begun, and prints where.
int MountDeploy(const ControlClient& client, const std::string& id);
int AbortDeploy(const ControlClient& client, const std::string& id);
int ListDeploys(const ControlClient& client, bool json);

int PauseProtection(const ControlClient& client, const PauseOptions& options);
int ResumeProtection(const ControlClient& client, const PauseOptions& options);

}  // namespace Ctl
