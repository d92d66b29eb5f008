#include "net/SocketWait.h"

#include <Poco/Net/SocketImpl.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "net/DownloadError.h"
#include "sdk/text/StrUtils.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

void WaitForDescriptor(int descriptor, short events, int timeout_ms, const std::string& what) {
    const std::int64_t deadline = TimeUtils::GetMonotonicMs() + timeout_ms;
    for (;;) {
        std::array<pollfd, 2> ready{
            {{descriptor, events, 0}, {CommandInterrupter::CurrentDescriptor(), POLLIN, 0}}};
        const std::int64_t left = deadline - TimeUtils::GetMonotonicMs();
        const int count =
            ::poll(ready.data(), ready.size(), static_cast<int>(std::max<std::int64_t>(0, left)));
        if (count < 0 && errno != EINTR) throw DownloadError("poll failed");
        if (count > 0 && ready[1].revents != 0) throw DownloadError("it was interrupted");
        if (count > 0) return;
        if (left <= 0) {
            throw DownloadError(StrUtils::Format("no %s within %d ms", what.c_str(), timeout_ms));
        }
    }
}

void WaitForSocket(const Poco::Net::Socket& socket, short events, int timeout_ms,
                   const std::string& what) {
    WaitForDescriptor(socket.impl()->sockfd(), events, timeout_ms, what);
}

Poco::Net::StreamSocket ConnectSocket(const Poco::Net::SocketAddress& address, int timeout_ms) {
    Poco::Net::StreamSocket socket;
    socket.connectNB(address);
    WaitForSocket(socket, POLLOUT, timeout_ms, "connection to " + address.toString());
    const int error = socket.impl()->socketError();
    if (error != 0) {
        throw DownloadError("no connection to " + address.toString() + ": " +
                            std::generic_category().message(error));
    }
    return socket;
}

}  // namespace SDK
