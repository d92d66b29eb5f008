#pragma once

#include "guards/Guard.h"

namespace Bench {

/// The measure for large files: one cp, started by the driver right after the change.
class BareCopy : public Guard {
  public:
    explicit BareCopy(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "cp -a"; }
    bool Start(const Site& site, const GuardSettings& settings) override;
    std::optional<Clock::time_point> Told(const std::string& path) override;
    void Settle() override;

  private:
    const Machine machine_;
    Site site_;
};

}  // namespace Bench
