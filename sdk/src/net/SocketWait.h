#pragma once

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include <string>

namespace SDK {

/// Waits until the descriptor is ready for `events` (poll(2)). Throws DownloadError after
/// `timeout_ms` ("no `what` within N ms") and when the calling thread's CommandInterrupter is
/// interrupted. Thread-safe.
void WaitForDescriptor(int descriptor, short events, int timeout_ms, const std::string& what);

/// The same for a socket.
void WaitForSocket(const Poco::Net::Socket& socket, short events, int timeout_ms,
                   const std::string& what);

/// A connected socket that does not block. Throws like WaitForSocket, or what Poco throws.
Poco::Net::StreamSocket ConnectSocket(const Poco::Net::SocketAddress& address, int timeout_ms);

}  // namespace SDK
