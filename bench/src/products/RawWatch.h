#pragma once

#include "products/Product.h"

namespace Bench {

/// The baseline for set-up and events: walks and watches with `threads` threads and reads all
/// events. Stores no names and restores nothing. A process of its own, so that its memory can be
/// measured.
class RawWatch : public Product {
  public:
    RawWatch(const Machine& machine, int threads) : machine_(machine), threads_(threads) {}

    std::string Name() const override;
    bool Start(const Site& site, const ProductSettings& settings) override;

  private:
    const Machine machine_;
    const int threads_;
};

/// Main function of that process: prints the set-up time in ms, then reads events until it is
/// ended.
int RunRawWatch(const std::string& root, int threads);

}  // namespace Bench
