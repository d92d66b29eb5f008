#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace test {

/// `time`, or as much longer as a build with sanitizers needs.
constexpr std::chrono::milliseconds Scaled(std::chrono::milliseconds time) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    return time * 4;
#else
    return time;
#endif
}

struct CommandResult {
    int exit_code = -1;  ///< -1: ended by a signal, or killed when its time was up
    std::string out;
    std::string err;
};

class Host;

/// One entry of a protection policy's "dirlist".
struct ProtectedPath {
    std::string path;
    std::string backup_path;
    bool auto_restore = true;
    std::vector<std::string> ignored_subdir = {};
};

/// A protection policy for those paths, with the distribution's rsync as the download.
Json::Value ProtectionPolicy(const std::vector<ProtectedPath>& paths);

/// A policy for a backup server, with the distribution's rsync as the download.
Json::Value BackupServerPolicy(const std::string& address, int port, const std::string& path);

/// Makes `policy` name another download.
void SetRsync(Json::Value& policy, const std::string& url, const std::string& sha256);

/// The built agent, in an installation of its own. Each process of the agent runs in a private
/// mount namespace where the kernel's settings and /etc/sysctl.conf are stand-ins and everything
/// outside the temporary directory is read-only, so that the machine stays as it is whatever the
/// agent does; that takes root. Everything that was started ends with the object.
class AgentProcess {
  public:
    AgentProcess();
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    /// Its processes are to run in `host`, which the caller keeps for as long; morvanectl is run
    /// outside all the same.
    void RunIn(const Host& host) { host_ = &host; }

    /// Its processes are to be started by `command`, a program with arguments to which the agent's
    /// own are added, and which becomes the agent (as env or unshare do).
    void RunBehind(const std::vector<std::string>& command) { behind_ = command; }

    /// The installation path without a trailing "/", or `name` below it.
    std::string Path() const { return installation_.Path(); }
    std::string Path(const std::string& name) const { return installation_.Path(name); }

    /// Starts it and waits until it says that it is ready; false, and the failure recorded with
    /// what it said, when it does not.
    bool Start();

    /// SIGTERM, and waits for the end; the exit code, -1 when it did not end in order.
    int Stop();

    /// SIGKILL, and reaps it.
    void Kill();

    bool IsRunning();
    pid_t Pid() const { return pid_; }

    /// Sends a signal to the running agent.
    void Signal(int number) const;

    /// Runs another process of the agent's program to its end, as a second start would.
    CommandResult RunAgent(const std::vector<std::string>& arguments) const;

    /// Runs morvanectl of the installation.
    CommandResult Ctl(const std::vector<std::string>& arguments, const std::string& input = "",
                      std::chrono::milliseconds deadline = std::chrono::seconds(30)) const;

    /// `policy apply`; the exit code.
    int Apply(const Json::Value& policy, const std::string& feature = "sentrel_feature") const;

    /// The status document; null when there is none.
    Json::Value Status() const;

    /// Protection is on, the first backup is complete and every protected path is watched.
    bool IsProtecting() const;

    /// The objects that `morvanectl <arguments>` prints one a line. A line that is no JSON is a
    /// recorded failure.
    std::vector<Json::Value> JsonLines(const std::vector<std::string>& arguments) const;

    /// True when an alarm of that action about `path` is stored.
    bool HasAlarm(const std::string& action, const std::string& path) const;

  private:
    pid_t Spawn(const std::string& program, const std::vector<std::string>& arguments,
                const std::string& input, bool isolate, const std::string& output) const;
    CommandResult RunToEnd(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& input, bool isolate,
                           std::chrono::milliseconds deadline) const;

    TempDir installation_;
    TempDir scratch_;             ///< stand-ins and captured output
    const Host* host_ = nullptr;  ///< none: each process in mounts of its own
    std::vector<std::string> behind_;
    mutable int runs_ = 0;
    pid_t pid_ = -1;
};

}  // namespace test
