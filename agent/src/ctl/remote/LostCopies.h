#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/DifferenceList.h"

namespace Ctl {

/// A backup copy that is not what was approved, and how it becomes that again.
struct LostCopy {
    std::size_t entry = 0;   ///< in the manifest
    bool is_content = true;  ///< false: only owner, mode or time are another
};

/// The lost copies of a part of an approved state, in the order of the manifest. Objects that were
/// never copied and what is among the copies without approval are left out. `found` holds the
/// differences of the copies; others may be among them.
std::vector<LostCopy> LostCopiesOf(const ApprovedPart& part, const DifferenceList& found);

}  // namespace Ctl
