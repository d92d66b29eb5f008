#pragma once

#include <string>

namespace Engine {

/// The policy keys that hold the rsync download for a host.
struct RsyncKeys {
    std::string url;
    std::string hash;

    /// The keys for this host's architecture and operating-system family.
    static RsyncKeys OfThisHost();
    static RsyncKeys Of(const std::string& architecture, unsigned int os_family);
};

}  // namespace Engine
