#pragma once

#include <string>

namespace Engine {

/// Where a release link led when a deploy began. A value.
struct LinkState {
    std::string link = {};  ///< its path; empty: there is none
    std::string text = {};

    static LinkState Of(const std::string& link);

    /// Lets the link lead there again, in one step, unless it does or others than root can change
    /// it. A sentence when that failed.
    std::string PutBack() const;
};

}  // namespace Engine
