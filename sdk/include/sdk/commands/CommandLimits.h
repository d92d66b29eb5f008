#pragma once

#include <cstdint>

namespace SDK {

/// Resource limits of one command; 0 means none. They hold for the started process and, separately,
/// for each process that it starts, but not for a handler. Beyond the memory limit allocations
/// fail; at the end of its processor time the process is killed.
struct CommandLimits {
    std::uint64_t address_space_bytes = 0;  ///< RLIMIT_AS
    std::uint64_t cpu_seconds = 0;          ///< RLIMIT_CPU
};

}  // namespace SDK
