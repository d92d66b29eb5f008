#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ctl/remote/Confinement.h"

namespace Ctl {

/// Runs one program in a confinement and watches what it writes. For one use; not thread-safe.
class ConfinedRun {
  public:
    struct Bounds {
        std::uint64_t bytes = 0;    ///< all files together
        std::uint64_t objects = 0;  ///< files and directories
    };
    struct End {
        int exit_code = -1;   ///< -1: it did not end by itself
        std::string output;   ///< the beginning of what it printed
        std::string problem;  ///< why it was not started, or was ended; a sentence, else empty
    };

    /// `writable` of the request must hold nothing but what the program makes. `is_over` is asked
    /// often; true ends the program. `progress` takes the bytes and objects so far.
    ConfinedRun(const Confinement::Request& request, const Bounds& bounds,
                std::function<bool()> is_over,
                std::function<void(std::uint64_t, std::uint64_t)> progress);

    /// `words[0]` is the program's path; the rest are its arguments. Blocks until it has ended;
    /// processes that it leaves behind are killed.
    End Run(const std::vector<std::string>& words);

  private:
    void Watch(int process, int output, End& end);
    std::string WhyTooMuch();

    const Confinement::Request request_;
    const Confinement confinement_;
    const Bounds bounds_;
    const std::function<bool()> is_over_;
    const std::function<void(std::uint64_t, std::uint64_t)> progress_;
};

}  // namespace Ctl
