#pragma once

#include "guards/Guard.h"

namespace Bench {

/// No guard but the measure for all: one rsync, started by the driver right after the change.
class BareRsync : public Guard {
  public:
    explicit BareRsync(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "bare rsync"; }
    bool Start(const Site& site, const GuardSettings& settings) override;
    std::optional<Clock::time_point> Told(const std::string& path) override;
    void Settle() override;

    /// From the last start to its exit; known after Settle.
    double ExitMs() const { return exit_ms_; }

    /// The command that restores `path` of the site, a directory where it ends in "/".
    Command Restore(const std::string& path) const;

  private:
    const Machine machine_;
    Site site_;
    Clock::time_point began_;
    double exit_ms_ = 0;
};

/// The same from a process of 200 MiB that forks in the plain way, as a simple agent would.
class ForkedRsync : public Guard {
  public:
    explicit ForkedRsync(const Machine& machine) : bare_(machine), machine_(machine) {}

    std::string Name() const override { return "bare rsync, forked by a process of 200 MiB"; }
    bool Start(const Site& site, const GuardSettings& settings) override;
    std::optional<Clock::time_point> Told(const std::string& path) override;
    void Settle() override;
    void Stop() override;

  private:
    bool Awaited(char word);

    BareRsync bare_;
    const Machine machine_;
    int to_parent_ = -1;
    int from_parent_ = -1;
};

/// The body of that process: reads command lines (one a line, blanks between) from `requests`, runs
/// each and writes a byte to `answers` when it has ended.
int RunForker(const std::string& requests, const std::string& answers);

}  // namespace Bench
