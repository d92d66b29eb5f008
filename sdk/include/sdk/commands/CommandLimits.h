#pragma once

#include <cstdint>

namespace SDK {

/// What one command may use; 0 is no limit of ours. Counts for the process that is started, and
/// anew for each process that this one starts; not for what a handler does in its place. The
/// program meets the limit of memory as a failed allocation; it is killed when its time is used up.
struct CommandLimits {
    std::uint64_t address_space_bytes = 0;  ///< RLIMIT_AS
    std::uint64_t cpu_seconds = 0;          ///< RLIMIT_CPU: of processor time
};

}  // namespace SDK
