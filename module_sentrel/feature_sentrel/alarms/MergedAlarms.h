#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "feature_sentrel/alarms/Alarm.h"

namespace Engine {

/// The alarms that were merged with an earlier one of their file and that nobody has read yet,
/// counted by file, type and outcome. Each count becomes one alarm. Not thread-safe.
class MergedAlarms {
  public:
    using Clock = std::chrono::steady_clock;

    /// An alarm of a type that no sent alarm of the file has is told after this time.
    static constexpr std::chrono::seconds kNewTypeWait{1};
    /// Repeats of the same type are told after this time.
    static constexpr std::chrono::seconds kRepeatWait{20};
    static constexpr std::size_t kMostCounted = 4096;  ///< beyond it the oldest are told at once
    static constexpr std::size_t kMostEvidence = 16;   ///< ids of one alarm

    /// `is_new_type`: no alarm of the file with that type was sent lately.
    void Add(const Alarm& alarm, bool is_new_type, Clock::time_point now);

    /// At most `most` alarms that are due. The ids of their evidence have a blank between them.
    std::vector<Alarm> Take(Clock::time_point now, std::size_t most);

    /// All of them.
    std::vector<Alarm> TakeAll();

  private:
    struct Due {
        Clock::time_point when;
        std::string key;
    };

    static std::string KeyOf(const Alarm& alarm);
    static void Count(Alarm& known, const Alarm& alarm);
    void TakeOne(std::deque<Due>& order, std::vector<Alarm>& taken);

    std::unordered_map<std::string, Alarm> alarms_;  ///< by KeyOf
    // In the order of their times; a key may be in both.
    std::deque<Due> soon_;
    std::deque<Due> later_;
};

}  // namespace Engine
