#pragma once

#include <cstdint>

namespace Framework {

/// The condition under which a task runs, in addition to its type.
class TaskCondition {
  public:
    enum TaskType : int {
        kPeriodic = 0,  ///< Run once per period, the first pass at once
        kResident = 4,  ///< Run again as soon as it returns
    };

    /// Kind 5: stall limit in seconds. A longer Run pass is reported once in the log and in the
    /// status; nothing is stopped.
    static constexpr std::int64_t kStallLimit = 5;

    struct Condition {
        std::int64_t kind = 0;
        std::int64_t value = 0;
    };

    void SetTaskCondition(const Condition& condition) { condition_ = condition; }
    const Condition& GetTaskCondition() const { return condition_; }

  private:
    Condition condition_;
};

}  // namespace Framework
