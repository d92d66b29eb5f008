#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Process.h"

namespace Bench {

/// Paths of a run, absolute and without a trailing "/".
struct Machine {
    std::string work;   ///< temporary directory for everything
    std::string stage;  ///< the built installation
    std::string home;   ///< has the .popt file of all rsync processes
    std::string peers;  ///< bench/peers
    std::string self;   ///< this program, for its subcommands
};

/// The paths of one protected tree.
struct Site {
    std::string live;     ///< the protected tree
    std::string good;     ///< its backup copy
    std::string scratch;  ///< existing directory for configuration, logs and sockets
};

/// Settings of one start.
struct ProductSettings {
    bool makes_copy = true;       ///< Sentrel only: false uses existing copies
    std::string ignored;          ///< excluded suffix of file names; empty: none
    std::string excluded_folder;  ///< Sentrel only: excluded directory below the site; empty: none
    bool tmp_is_full = false;     ///< Sentrel only: runs with a full /tmp of its own
    milliseconds deadline = std::chrono::minutes(3);  ///< until ready
};

/// A product under test: Sentrel, a peer or a baseline. The destructor ends its processes. Not
/// thread-safe.
class Product {
  public:
    virtual ~Product() = default;
    Product() = default;
    Product(const Product&) = delete;
    Product& operator=(const Product&) = delete;

    /// The constant name in tables and results.
    virtual std::string Name() const = 0;

    /// The reason why it cannot be measured here; empty: it can.
    virtual std::string Missing() const { return {}; }

    /// The root of the backup copy of `site`.
    virtual std::string CopyRoot(const Site& site) const { return site.good; }

    /// Starts and waits until the whole tree is watched. False after the deadline, with Problem().
    virtual bool Start(const Site& site, const ProductSettings& settings) = 0;

    /// From the watch request until the product reported that the whole tree is watched.
    double ReadyMs() const { return ready_ms_; }

    const std::string& Problem() const { return problem_; }

    /// Baselines start their restore here and return its begin. Called after each change.
    virtual std::optional<Clock::time_point> StartRestore(const std::string& /*path*/) {
        return {};
    }

    /// Waits until the processes for the last change have ended; blocks at least some 30 ms.
    virtual void Settle();

    /// Ends the product with SIGTERM.
    virtual void Stop();

    /// Figures of the permanent processes.
    std::size_t MemoryBytes() const;
    std::size_t PeakMemoryBytes() const;
    std::chrono::nanoseconds CpuTime() const;

    /// SIGSTOP and SIGCONT for the permanent processes.
    void Suspend() const;
    void Resume() const;

    /// Unread bytes in its inotify queue.
    long Backlog() const;

    bool Runs() { return main_.Pid() > 0 && !main_.Ended(); }

  protected:
    /// Stores the problem, ends the product and returns false.
    bool Fail(const std::string& problem);

    /// Called when ready: the present processes are the permanent ones. Returns true.
    bool Ready(Clock::time_point asked);

    Child main_;  ///< the ancestor of all others
    std::vector<pid_t> permanent_;
    double ready_ms_ = 0;
    std::string problem_;
};

/// rsync's arguments of a Sentrel restore without source and destination.
std::vector<std::string> RestoreArguments(const std::string& rsync);

/// PATH, LC_ALL=C and HOME as Sentrel sets them for rsync.
std::vector<std::string> PlainEnvironment(const Machine& machine);

constexpr char kRsync[] = "/usr/bin/rsync";

std::string MissingProgram(const std::string& path);
std::string ReadFile(const std::string& path);
bool WriteText(const std::string& path, const std::string& text);

}  // namespace Bench
