#pragma once

#include "products/Product.h"

namespace Bench {

constexpr char kInotifywait[] = "/usr/bin/inotifywait";

/// The peers' configuration is in bench/peers.
class InotifywaitLoop : public Product {
  public:
    explicit InotifywaitLoop(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "inotifywait loop"; }
    std::string Missing() const override { return MissingProgram(kInotifywait); }
    bool Start(const Site& site, const ProductSettings& settings) override;

  private:
    const Machine machine_;
};

/// inotifywait alone: reports changes and restores nothing.
class Inotifywait : public Product {
  public:
    explicit Inotifywait(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "inotifywait"; }
    std::string Missing() const override { return MissingProgram(kInotifywait); }
    bool Start(const Site& site, const ProductSettings& settings) override;

  private:
    const Machine machine_;
};

class Lsyncd : public Product {
  public:
    enum class Way { kFile, kPool, kBatch };
    Lsyncd(const Machine& machine, Way way) : machine_(machine), way_(way) {}

    std::string Name() const override;
    std::string Missing() const override { return MissingProgram("/usr/bin/lsyncd"); }
    bool Start(const Site& site, const ProductSettings& settings) override;

  private:
    const Machine machine_;
    const Way way_;
};

/// A watchman server with its socket and state in the scratch folder.
class Watchman : public Product {
  public:
    explicit Watchman(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "watchman trigger"; }
    std::string Missing() const override { return MissingProgram("/usr/bin/watchman"); }
    bool Start(const Site& site, const ProductSettings& settings) override;

  private:
    /// The server's answer to a command; empty after the deadline.
    std::string Ask(const std::string& request, milliseconds deadline) const;
    bool SetTrigger(const Site& site, const ProductSettings& settings) const;

    const Machine machine_;
    std::string folder_;
};

}  // namespace Bench
