#pragma once

#include <cerrno>

#include "restore/object/ObjectAttributes.h"
#include "sdk/restore/ObjectRestorer.h"

namespace SDK {

/// How the restore of many objects goes: the first failure, and whether it is interrupted. Owned by
/// the restore of one tree. Not thread-safe.
class RestoreProgress {
  public:
    /// Keeps the first failure. ECANCELED means that the restore is interrupted.
    void Note(const FailedStep& failed) {
        is_interrupted_ = is_interrupted_ || failed.error == ECANCELED;
        failed_.Note(failed);
    }

    /// For each entry of a listing. Checks the thread's CommandInterrupter at every 64th call.
    bool MustStop();

    bool IsInterrupted() const { return is_interrupted_; }

    /// What the caller of the restore gets.
    ObjectRestorer::Result Result() const;

  private:
    FailedStep failed_;
    unsigned checks_ = 0;
    bool is_interrupted_ = false;
};

}  // namespace SDK
