#pragma once

#include "products/Product.h"

namespace Bench {

/// The baseline for large files: one cp that the driver starts after the change.
class BareCopy : public Product {
  public:
    explicit BareCopy(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "cp -a"; }
    bool Start(const Site& site, const ProductSettings& settings) override;
    std::optional<Clock::time_point> StartRestore(const std::string& path) override;
    void Settle() override;

  private:
    const Machine machine_;
    Site site_;
};

}  // namespace Bench
