#pragma once

#include <json/value.h>

#include <ctime>
#include <mutex>

#include "feature_sentrel/schedule/WorkSchedule.h"

namespace Engine {

/// The published schedule: a copy of the tables that each policy leaves behind. Policy callbacks
/// publish, the status query and the policy check read. Owned by ModuleState. Thread-safe.
class ScheduleStatus {
  public:
    /// `enabled`: the policy in force has a schedule of its own.
    void Publish(const WorkSchedule& schedule, bool enabled);
    WorkSchedule Get() const;

    /// {"enabled","working","until","text"}: whether protection works at `now`; until when, in
    /// seconds of the epoch, null for ever; and both in words, in local time.
    Json::Value ToJson(std::time_t now) const;

    void Reset() { Publish(WorkSchedule::AlwaysOn(), false); }

  private:
    mutable std::mutex mutex_;  ///< guards all below
    WorkSchedule schedule_ = WorkSchedule::AlwaysOn();
    bool enabled_ = false;
};

}  // namespace Engine
