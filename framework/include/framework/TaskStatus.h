#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Framework {

/// The state of one task, for the status document.
struct TaskStatus {
    std::string id;
    std::string feature;
    std::string module;
    std::string state;  ///< "starting", "running", "stalled", "stopping"
    std::uint64_t passes = 0;
    double last_pass_ms = 0;
    std::size_t queue_length = 0;
    bool init_failed = false;
};

}  // namespace Framework
