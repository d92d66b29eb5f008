#pragma once

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include <string>

namespace SDK {

/// Waits until the socket is ready for `events` (poll(2)). Throws DownloadError when the time is up
/// ("no `what` within N ms") or the calling thread's CommandInterrupter is interrupted.
void WaitForSocket(const Poco::Net::Socket& socket, short events, int timeout_ms,
                   const std::string& what);

/// A connected socket that does not block. Throws like WaitForSocket, or what Poco throws.
Poco::Net::StreamSocket ConnectSocket(const Poco::Net::SocketAddress& address, int timeout_ms);

}  // namespace SDK
