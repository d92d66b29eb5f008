#pragma once

#include <deque>
#include <unordered_map>
#include <vector>

#include "who/process/Process.h"

namespace Sentry {

/// The processes of this machine: those that run, and those that ended in the last 30 seconds, each
/// with the programs it ran. Fed by the kernel's process events, or by /proc alone. Bounded. Not
/// thread-safe.
class ProcessTable {
  public:
    static constexpr Nanoseconds kKept = 30 * kSecond;
    static constexpr std::size_t kMostEnded = 16384;
    static constexpr std::size_t kMostLives = 98304;

    struct Found {
        ProcessPtr process;  ///< null: unknown
        bool is_exact = false;
        const char* why = "";  ///< why not exact
    };

    /// A new program of a process.
    struct Exec {
        pid_t pid = 0;
        pid_t parent = 0;
        std::uint64_t start = 0;
        Program program = {};
        User user = {};
        uid_t login = kUnset;
        std::uint32_t session = kUnset;
        std::string cgroup = {};
        std::uint32_t waiting = kUnset;  ///< changes in the queue at that time
    };

    /// The agent and its descendants are our own, and this process. Before all else.
    void SetOwn(pid_t agent, pid_t self) {
        agent_ = agent;
        self_ = self;
    }

    /// From now on the kernel tells of all processes. Reads those that run from /proc.
    void BeginEvents();
    bool HasEvents() const { return has_events_; }

    void OnFork(pid_t parent, pid_t child, std::uint64_t start, Nanoseconds at);
    void OnExec(const Exec& exec, Nanoseconds at);
    /// `user`: what it was at its end.
    void OnExit(pid_t pid, const User& user, Nanoseconds at);

    /// Events were lost, so what is known may be outdated.
    void OnLost() { lost_at_ = -1; }

    /// Forgets what ended long ago.
    void Expire(Nanoseconds now);

    /// Who had the number `pid` at that moment. `user`: what it was then; null: not known.
    Found At(pid_t pid, const Moment& moment, const User* user);

    std::size_t Size() const { return size_; }

  private:
    /// What a process was until a time.
    struct Past {
        ProcessPtr process;
        Nanoseconds until = 0;
        std::uint32_t waiting = kUnset;  ///< changes in the queue at that time
    };
    struct Life {
        ProcessPtr process;
        std::vector<Past> past = {};  ///< the oldest first
        Nanoseconds begun = 0;
        Nanoseconds ended = 0;  ///< 0: it runs
        User last_user = {};    ///< at its end
        User seen_user = {};    ///< when it made a change; unset: not seen
    };
    using Lives = std::vector<Life>;  ///< of one number, the oldest first

    Life* Running(pid_t pid);
    Life& Begin(pid_t pid, Life life);
    ProcessPtr Learn(pid_t pid, Nanoseconds at, std::size_t depth);
    void Inherit(Process& process, const ProcessPtr& parent) const;
    Found FromProc(pid_t pid, Nanoseconds latest);
    static Found Choose(const Life& life, const Moment& moment);
    static Found WithUser(Found found, Life& life, const User* user);

    pid_t agent_ = 0;
    pid_t self_ = 0;
    bool has_events_ = false;
    Nanoseconds lost_at_ = 0;  ///< -1: just now
    std::unordered_map<pid_t, Lives> lives_;
    std::size_t size_ = 0;
    struct Ended {
        pid_t pid;
        std::uint64_t start;
        Nanoseconds at;
    };
    std::deque<Ended> ended_;
};

}  // namespace Sentry
