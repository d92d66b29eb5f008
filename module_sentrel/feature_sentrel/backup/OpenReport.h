#pragma once

#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "status/SentrelStatus.h"

namespace Framework {
class Task;
}

namespace Engine {

class BackupProgress;

/// Reports the objects of a protected path that could not be copied in this round. Backup task's
/// thread.
class OpenReport {
  public:
    /// Both are borrowed.
    OpenReport(const BackupProgress& progress, SentrelStatus& status)
        : progress_(progress), status_(status) {}

    /// Writes the present ones to the status; without any, removes the status entry.
    void Publish(const SentrelDirRule& rule);

    /// Sends one alarm by `sender` that names the first of them, and logs it.
    void Alarm(const SentrelDirRule& rule, Framework::Task& sender);

    /// Their number and the first of them with the reasons, in at most 4 KiB.
    std::string Describe(const SentrelDirRule& rule) const;

  private:
    std::vector<SentrelStatus::OpenObject> FirstOnes(const SentrelDirRule& rule) const;

    const BackupProgress& progress_;
    SentrelStatus& status_;
};

}  // namespace Engine
