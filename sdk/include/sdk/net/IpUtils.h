#pragma once

#include <string>
#include <vector>

namespace SDK {

/// This host's addresses. Stateless and thread-safe.
class IpUtils {
  public:
    /// Replaces `list` by the addresses of all interfaces that are up, IPv4 and IPv6, as text
    /// without a scope. `with_loopback` lists loopback addresses too. 0 on success.
    static int GetLocalIpList(std::vector<std::string>& list, bool with_loopback);
};

}  // namespace SDK
