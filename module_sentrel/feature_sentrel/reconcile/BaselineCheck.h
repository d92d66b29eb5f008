#pragma once

#include <baseline/TreeVerifier.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "baseline/RuleBaselines.h"
#include "places/RuleAnchors.h"

namespace Engine {

/// Compares protected paths with their manifests on a thread of its own, one after the other. The
/// owner takes the results on its own thread and judges them. The public methods are for one
/// thread.
class BaselineCheck {
  public:
    /// Why a path is compared.
    enum class Purpose {
        kStart,    ///< the agent was away; at full speed
        kDaily,    ///< every content is read, at a low rate
        kRestore,  ///< an operator wants the approved state back; every content is read
    };
    struct Job {
        std::string watch_id;
        std::shared_ptr<const AnchoredRule> places;
        RuleBaselines::Known manifest;
        Purpose purpose = Purpose::kStart;
        std::string below = {};     ///< only this part
        std::uint64_t request = 0;  ///< of an operator
    };
    struct Found {
        std::string watch_id;
        Purpose purpose = Purpose::kStart;
        Baseline::Difference difference;
        std::uint64_t request = 0;
    };
    struct Ended {
        Job job;
        Baseline::TreeVerifier::Summary summary;
        std::size_t found = 0;
        std::chrono::milliseconds duration{0};
    };

    /// The thread calls `wake` when there are results.
    explicit BaselineCheck(std::function<void()> wake) : wake_(std::move(wake)) {}
    ~BaselineCheck() { Stop(); }
    BaselineCheck(const BaselineCheck&) = delete;
    BaselineCheck& operator=(const BaselineCheck&) = delete;

    void Start(Job job);

    /// At most `most` differences.
    std::vector<Found> Take(std::size_t most);

    /// The next job that has ended and whose differences have all been taken.
    std::optional<Ended> TakeEnded();

    bool IsIdle() const;

    /// Ends the running job and forgets all.
    void Stop();

  private:
    using Item = std::variant<Found, Ended>;

    void Work();
    void Run(const Job& job);
    void Put(Item item);
    bool IsOver(Purpose purpose);

    const std::function<void()> wake_;
    mutable std::mutex mutex_;  ///< guards the four below
    std::condition_variable changed_;
    std::deque<Job> jobs_;
    std::deque<Item> results_;
    bool running_ = false;
    std::atomic<bool> stopping_{false};
    std::chrono::steady_clock::time_point busy_since_{};  ///< the thread's own
    std::thread thread_;
};

}  // namespace Engine
