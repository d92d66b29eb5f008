#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace test {

/// `time`, extended in builds with sanitizers, which run slower.
constexpr std::chrono::milliseconds Scaled(std::chrono::milliseconds time) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    return time * 4;
#else
    return time;
#endif
}

struct CommandResult {
    int exit_code = -1;  ///< -1: ended by a signal, or killed after the deadline
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

/// A protection policy for `paths` with the distribution's rsync as the download.
Json::Value ProtectionPolicy(const std::vector<ProtectedPath>& paths);

/// A backup server policy with the distribution's rsync as the download.
Json::Value BackupServerPolicy(const std::string& address, int port, const std::string& path);

/// Sets the rsync download of `policy`.
void SetRsync(Json::Value& policy, const std::string& url, const std::string& sha256);

/// The built agent in an installation of its own. Each agent process runs in a private mount
/// namespace: stand-ins replace the kernel's settings and /etc/sysctl.conf, and everything outside
/// the temporary directory is read-only, so that the agent cannot change the machine. Needs root.
/// The destructor ends all processes.
class AgentProcess {
  public:
    AgentProcess();
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    /// Runs the agent, but not morvanectl, in `host`, which must outlive this object.
    void RunIn(const Host& host) { host_ = &host; }

    /// Starts the agent through `command`, a program with arguments that executes the words after
    /// them, as env and unshare do. By default through the words of SENTREL_AGENT_THROUGH.
    void RunThrough(const std::vector<std::string>& command) { wrapper_ = command; }

    /// The installation path without a trailing "/", or `name` below it.
    std::string Path() const { return installation_.Path(); }
    std::string Path(const std::string& name) const { return installation_.Path(name); }

    /// Starts the agent and waits until it reports ready. On failure returns false and records the
    /// agent's output as a test failure.
    bool Start();

    /// Sends SIGTERM and waits. The exit code; -1 after a signal. Others than 0 fail the test.
    int Stop();

    /// Sends SIGKILL and reaps the process.
    void Kill();

    bool IsRunning();
    pid_t Pid() const { return pid_; }

    void Signal(int number) const;

    /// Runs a second agent process to its end.
    CommandResult RunAgent(const std::vector<std::string>& arguments) const;

    /// Runs morvanectl of the installation.
    CommandResult Ctl(const std::vector<std::string>& arguments, const std::string& input = "",
                      std::chrono::milliseconds deadline = std::chrono::seconds(30)) const;

    /// `policy apply`; the exit code.
    int Apply(const Json::Value& policy, const std::string& feature = "sentrel_feature") const;

    /// The status document; null when the agent does not answer.
    Json::Value Status() const;

    /// Protection is on, the first backup is complete and every protected path is watched.
    bool IsProtecting() const;

    /// The objects that `morvanectl <arguments>` prints, one per line. A line that is not JSON
    /// fails the test.
    std::vector<Json::Value> JsonLines(const std::vector<std::string>& arguments) const;

    /// True when the store has an alarm with that action for `path`.
    bool HasAlarm(const std::string& action, const std::string& path) const;

  private:
    pid_t Spawn(const std::string& program, const std::vector<std::string>& arguments,
                const std::string& input, bool isolate, const std::string& output) const;
    CommandResult RunToEnd(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& input, bool isolate,
                           std::chrono::milliseconds deadline) const;

    TempDir installation_;
    TempDir scratch_;             ///< stand-ins and captured output
    const Host* host_ = nullptr;  ///< null: a mount namespace per process
    std::vector<std::string> wrapper_;
    mutable int runs_ = 0;
    pid_t pid_ = -1;
};

}  // namespace test
