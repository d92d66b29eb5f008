#pragma once

#include <sdk/files/FileDescriptor.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "SimulatedHost.h"
#include "store/FleetStore.h"
#include "support/Fleet.h"

namespace test {

/// Many hosts on the calling thread. Alarms come at a rate, at hosts that a seeded generator
/// chooses.
class SimulatedFleet {
  public:
    /// `ids`: as the broker knows them.
    SimulatedFleet(const Broker& broker, const std::vector<std::string>& ids, unsigned seed);

    static std::vector<std::string> MakeIds(int count);

    void SetRate(double alarms_per_second) { rate_ = alarms_per_second; }
    void RaiseAt(std::size_t host, std::int64_t count);

    /// Lets the hosts work for that time, or until `done`, which is asked every some milliseconds.
    /// Whether it was done.
    bool RunFor(std::chrono::milliseconds time, const std::function<bool()>& done = nullptr);

    std::size_t Connected() const;
    std::int64_t Raised() const;
    std::int64_t Acknowledged() const;

    /// From an alarm to its acknowledgement, sorted; forgets them.
    std::vector<std::int64_t> TakeLatencies();

    /// The first report that is missing, doubled, changed or out of order in the store; empty when
    /// there is none.
    std::string FaultIn(Collector::FleetStore& store) const;

  private:
    void StepOne(std::size_t index, std::int64_t now_ms);
    void StepReady(std::int64_t now_ms);
    void Sweep(std::int64_t now_ms);
    void RaiseByRate(std::int64_t now_ms);

    std::vector<std::unique_ptr<SimulatedHost>> hosts_;
    std::vector<int> sockets_;  ///< that epoll knows, by host
    SDK::FileDescriptor poll_;
    std::minstd_rand random_;
    double rate_ = 0;
    double owed_ = 0;  ///< alarms of the rate that are not raised yet
    std::int64_t last_raise_ms_ = 0;
    std::int64_t last_sweep_ms_ = 0;
    std::size_t next_swept_ = 0;
};

}  // namespace test
