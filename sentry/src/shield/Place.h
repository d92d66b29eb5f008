#pragma once

#include <sys/stat.h>

#include <string>

#include "shield/ShieldRule.h"

namespace Sentry {

/// Where an open file lies in a shielded directory.
struct Place {
    enum class Kind {
        kInside,   ///< `below` names it
        kIgnored,  ///< it is not guarded
        kMoved,    ///< it was moved away since it was opened, or has no name that is known
    };
    Kind kind = Kind::kMoved;
    std::string below = {};  ///< relative to the directory

    /// `file` is an open file of a guarded directory, `info` what fstat(2) says of it. The name by
    /// which it was opened counts, also when it was unlinked since.
    static Place Of(const ShieldRule& rule, const SDK::PathAnchor& root, int file,
                    const struct stat& info);
};

}  // namespace Sentry
