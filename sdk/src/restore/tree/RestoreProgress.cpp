#include "restore/tree/RestoreProgress.h"

#include <cerrno>

#include "restore/object/RestoreSteps.h"
#include "sdk/time/CommandInterrupter.h"

namespace SDK {

namespace {

constexpr unsigned kEntriesPerCheck = 64;

}  // namespace

bool RestoreProgress::MustStop() {
    if (!is_interrupted_ && ++checks_ % kEntriesPerCheck == 0) {
        is_interrupted_ = CommandInterrupter::IsCurrentInterrupted();
    }
    return is_interrupted_;
}

ObjectRestorer::Result RestoreProgress::Result() const {
    return ResultOf(is_interrupted_ ? FailedStep{"restore", ECANCELED} : failed_);
}

}  // namespace SDK
