#pragma once

#include <json/value.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ctl/baselines/Verification.h"

namespace Ctl {

/// Compares protected paths with what was approved, one at a time, on a thread of its own.
/// Thread-safe.
class VerifyJobs {
  public:
    VerifyJobs() = default;
    ~VerifyJobs() { Stop(); }
    VerifyJobs(const VerifyJobs&) = delete;
    VerifyJobs& operator=(const VerifyJobs&) = delete;

    /// The number of the new job, which ends the last one; 0 with a sentence in `error`.
    int Start(const std::string& path, std::string& error);

    /// {"state": "running", "objects"} or {"state": "done", "message", "differences": [{"kind",
    /// "path" (percent-encoded), "shown", "detail"}], "left_out"}; null: there is no such job.
    Json::Value Show(long long number) const;

    void Stop();

  private:
    struct Job;
    static Json::Value Result(const Job& job);

    mutable std::mutex mutex_;  ///< guards all below
    int number_ = 0;
    std::shared_ptr<Job> job_;
};

}  // namespace Ctl
