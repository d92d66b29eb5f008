#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Process.h"

namespace Bench {

/// Where this run lives and what it measures. All paths absolute, without a trailing "/".
struct Machine {
    std::string work;   ///< the temporary directory; everything is made below it
    std::string stage;  ///< the built installation
    std::string home;   ///< holds the .popt that every rsync here reads, ours and the peers'
    std::string peers;  ///< the folder bench/peers
    std::string self;   ///< this program, for what runs as a process of its own
};

/// One guarded tree.
struct Site {
    std::string live;     ///< the tree itself
    std::string good;     ///< its pristine copy; a guard that makes one itself fills it
    std::string scratch;  ///< configuration, logs, sockets; exists
};

/// How a guard is to run.
struct GuardSettings {
    bool makes_copy = true;    ///< ours: from a first backup; else from copies made beforehand
    std::string ignored;       ///< a suffix of file names to leave alone; empty: none
    bool tmp_is_full = false;  ///< ours: with a /tmp of its own, in which nothing can be written
    milliseconds deadline = std::chrono::minutes(3);  ///< to be ready
};

/// Something that keeps a tree as it was: ours, a peer, or a measure for both. One thread; ends all
/// its processes with the object.
class Guard {
  public:
    virtual ~Guard() = default;
    Guard() = default;
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    /// For tables; the same guard always has the same.
    virtual std::string Name() const = 0;

    /// Empty, or why it cannot be measured here.
    virtual std::string Missing() const { return {}; }

    /// Where the pristine copy of `site` lies, for a guard that says so itself.
    virtual std::string GoodRoot(const Site& site) const { return site.good; }

    /// Starts and waits until all is watched; false when it is not by the deadline. `Problem`
    /// tells.
    virtual bool Start(const Site& site, const GuardSettings& settings) = 0;

    /// From the request to watch until it said that all is watched.
    double ReadyMs() const { return ready_ms_; }

    const std::string& Problem() const { return problem_; }

    /// For what restores only when told: the time at which it began. Called after a change.
    virtual std::optional<Clock::time_point> Told(const std::string& /*path*/) { return {}; }

    /// Waits until nothing that it started for the last change runs any more; blocks some 30 ms.
    virtual void Settle();

    /// Ends it in order.
    virtual void Stop();

    /// Of the processes that run as long as the guard does.
    std::size_t MemoryBytes() const;
    std::size_t PeakMemoryBytes() const;
    std::chrono::nanoseconds CpuTime() const;

    /// All that belongs to the guard at rest is stopped, or goes on.
    void Freeze() const;
    void Thaw() const;

    /// Bytes of events in the kernel's queue for it.
    long Backlog() const;

    bool Runs() { return main_.Pid() > 0 && !main_.Ended(); }

  protected:
    /// Ends what was started; false.
    bool Fail(const std::string& problem);

    /// To be called once it is ready: what runs now is the guard itself, what comes later works.
    bool Ready(Clock::time_point asked);

    Child main_;  ///< the first process; all others come from it
    std::vector<pid_t> lasting_;
    double ready_ms_ = 0;
    std::string problem_;
};

/// The arguments of a restore as ours runs it, without source and destination.
std::vector<std::string> RestoreArguments(const std::string& rsync);

/// PATH, LC_ALL=C and HOME as ours gives its rsync.
std::vector<std::string> PlainEnvironment(const Machine& machine);

constexpr char kRsync[] = "/usr/bin/rsync";

std::string MissingProgram(const std::string& path);
std::string ReadFile(const std::string& path);
bool WriteText(const std::string& path, const std::string& text);

}  // namespace Bench
