#pragma once

#include <Poco/Net/IPAddress.h>

#include <functional>
#include <string>

namespace SDK {

/// Finds the address of a host name without being held up by name servers that do not answer. The
/// look-up itself cannot be ended, so it runs on a thread of its own that is left behind when the
/// wait is over; who asks for the same name meanwhile waits for that one. Any thread.
class NameResolver {
  public:
    /// The address of `host`, which may be an address itself. Throws DownloadError when the time is
    /// up, when the calling thread's CommandInterrupter is interrupted, when the name has no
    /// address, and when too many look-ups are without an answer.
    static Poco::Net::IPAddress Resolve(const std::string& host, int timeout_ms);

    /// Blocks for as long as it takes; throws when there is no address.
    using Lookup = std::function<Poco::Net::IPAddress(const std::string& host)>;
    /// Lets a test stand in for the system's resolver; null takes that back.
    static void SetLookup(Lookup lookup);
};

}  // namespace SDK
