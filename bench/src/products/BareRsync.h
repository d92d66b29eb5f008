#pragma once

#include "products/Product.h"

namespace Bench {

/// The baseline of all rows: one rsync that the driver starts after the change.
class BareRsync : public Product {
  public:
    explicit BareRsync(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "bare rsync"; }
    bool Start(const Site& site, const ProductSettings& settings) override;
    std::optional<Clock::time_point> StartRestore(const std::string& path) override;
    void Settle() override;

    /// From the last start to the exit; valid after Settle.
    double ExitMs() const { return exit_ms_; }

    /// The command that restores `path` of the site. A directory ends in "/".
    Command Restore(const std::string& path) const;

  private:
    const Machine machine_;
    Site site_;
    Clock::time_point began_;
    double exit_ms_ = 0;
};

/// The same rsync, forked by a process of 200 MiB as a simple agent would do.
class ForkedRsync : public Product {
  public:
    explicit ForkedRsync(const Machine& machine) : bare_(machine), machine_(machine) {}

    std::string Name() const override { return "bare rsync, forked by a process of 200 MiB"; }
    bool Start(const Site& site, const ProductSettings& settings) override;
    std::optional<Clock::time_point> StartRestore(const std::string& path) override;
    void Settle() override;
    void Stop() override;

  private:
    bool HasAnswered(char word);

    BareRsync bare_;
    const Machine machine_;
    int to_parent_ = -1;
    int from_parent_ = -1;
};

/// Main function of that process: runs each command line of `requests` (words separated by blanks)
/// and writes a byte to `answers` after each.
int RunForker(const std::string& requests, const std::string& answers);

}  // namespace Bench
