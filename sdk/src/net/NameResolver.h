#pragma once

#include <Poco/Net/IPAddress.h>

#include <functional>
#include <string>

namespace SDK {

/// Finds the address of a host name with a timeout. A lookup cannot be interrupted, so it runs on
/// its own thread, which may outlive the wait; further callers for that name share it. Thread-safe.
class NameResolver {
  public:
    /// The address of `host`, which may be an address already. Blocks at most `timeout_ms`. Throws
    /// DownloadError after that time, when the thread's CommandInterrupter is interrupted, when the
    /// name has no address, and when too many lookups are running.
    static Poco::Net::IPAddress Resolve(const std::string& host, int timeout_ms);

    /// Blocks until it has an address; throws when there is none.
    using Lookup = std::function<Poco::Net::IPAddress(const std::string& host)>;
    /// Replaces the system's resolver in tests; null restores it.
    static void SetLookup(Lookup lookup);
};

}  // namespace SDK
