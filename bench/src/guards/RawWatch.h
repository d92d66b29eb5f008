#pragma once

#include "guards/Guard.h"

namespace Bench {

/// The measure for set-up and events: walks and watches with `threads` threads, reads every event,
/// keeps no name and restores nothing. A process of its own, so that its memory can be seen.
class RawWatch : public Guard {
  public:
    RawWatch(const Machine& machine, int threads) : machine_(machine), threads_(threads) {}

    std::string Name() const override;
    bool Start(const Site& site, const GuardSettings& settings) override;

  private:
    const Machine machine_;
    const int threads_;
};

/// The body of that process: says "ready" on standard output, then reads events until it is ended.
int RunRawWatch(const std::string& root, int threads);

}  // namespace Bench
