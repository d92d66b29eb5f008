#pragma once

#include "guards/Guard.h"

namespace Bench {

constexpr char kInotifywait[] = "/usr/bin/inotifywait";

/// The peers' settings lie in bench/peers, where they can be read.
class InotifywaitLoop : public Guard {
  public:
    explicit InotifywaitLoop(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "inotifywait loop"; }
    std::string Missing() const override { return MissingProgram(kInotifywait); }
    bool Start(const Site& site, const GuardSettings& settings) override;

  private:
    const Machine machine_;
};

/// inotifywait alone, as the least that a loop needs: it tells and nobody acts.
class Inotifywait : public Guard {
  public:
    explicit Inotifywait(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "inotifywait"; }
    std::string Missing() const override { return MissingProgram(kInotifywait); }
    bool Start(const Site& site, const GuardSettings& settings) override;

  private:
    const Machine machine_;
};

class Lsyncd : public Guard {
  public:
    enum class Way { kFile, kPool, kBatch };
    Lsyncd(const Machine& machine, Way way) : machine_(machine), way_(way) {}

    std::string Name() const override;
    std::string Missing() const override { return MissingProgram("/usr/bin/lsyncd"); }
    bool Start(const Site& site, const GuardSettings& settings) override;

  private:
    const Machine machine_;
    const Way way_;
};

/// A server of its own, with a socket and state in the scratch folder.
class Watchman : public Guard {
  public:
    explicit Watchman(const Machine& machine) : machine_(machine) {}

    std::string Name() const override { return "watchman trigger"; }
    std::string Missing() const override { return MissingProgram("/usr/bin/watchman"); }
    bool Start(const Site& site, const GuardSettings& settings) override;

  private:
    /// The server's answer to a command; null when it gave none in time.
    std::string Ask(const std::string& request, milliseconds deadline) const;
    bool SetTrigger(const Site& site, const GuardSettings& settings) const;

    const Machine machine_;
    std::string folder_;
};

}  // namespace Bench
