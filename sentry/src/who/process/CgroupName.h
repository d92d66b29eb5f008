#pragma once

#include <string>
#include <string_view>

namespace Sentry {

/// What a control group's path says of its processes.
struct CgroupName {
    std::string unit;       ///< the innermost unit of systemd; empty: none
    std::string container;  ///< its id, twelve characters of a hexadecimal one; empty: none
};

/// Never fails: a path of an unknown form gives empty names.
CgroupName NameOfCgroup(std::string_view path);

}  // namespace Sentry
