#pragma once

#include <cstddef>
#include <list>

#include "base/SentrelDirRule.h"
#include "baseline/LentKey.h"

namespace Engine {

struct ModuleState;

/// What becomes of changes that were made while nobody watched.
enum class CheckAction {
    kHold,     ///< they are reported and left as they are until an operator decides
    kRestore,  ///< they are undone
    kAccept,   ///< they are copied, as when a policy is applied
};

/// Settings of the section "sentrel" in conf/agent.json. A value that does not fit is logged, and
/// the default used.
struct CheckSettings {
    CheckAction at_start = CheckAction::kHold;       ///< "start_check"
    CheckAction after_pause = CheckAction::kAccept;  ///< "pause_end_check"
    std::size_t generations = 3;                     ///< "baseline_generations", 1 to 100
    int full_check_hour = 3;                         ///< "full_check_hour"; -1: never

    static CheckSettings Read();
};

/// Lets each rule go on with the state that was approved before, as far as `action` wants that and
/// there is one: its copies count as complete, and it is to be compared
/// (BackupProgress::IsChecking). The present state of the others is to be copied, and signed with
/// `key` where the private one is kept elsewhere. Framework thread
/// or inotify task, before the backup task copies anything.
void GoOnFromBaselines(ModuleState& state, const std::list<SentrelDirRule>& rules,
                       CheckAction action, const char* approval, LentKey::Key key = nullptr);

}  // namespace Engine
