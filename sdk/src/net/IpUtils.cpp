#include "sdk/net/IpUtils.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>

namespace SDK {

namespace {

/// The address as text without a scope; empty when it is of another family.
std::string AddressText(const sockaddr* address) {
    socklen_t length = 0;
    if (address != nullptr && address->sa_family == AF_INET) length = sizeof(sockaddr_in);
    if (address != nullptr && address->sa_family == AF_INET6) length = sizeof(sockaddr_in6);
    std::array<char, NI_MAXHOST> host{};
    if (length == 0 ||
        getnameinfo(address, length, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) != 0) {
        return {};
    }
    const std::string text = host.data();
    return text.substr(0, text.find('%'));
}

}  // namespace

int IpUtils::GetLocalIpList(std::vector<std::string>& list, bool with_loopback) {
    list.clear();
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) return -1;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, &freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if ((entry->ifa_flags & IFF_UP) == 0) continue;
        if (!with_loopback && (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
        const std::string text = AddressText(entry->ifa_addr);
        if (text.empty() || std::find(list.begin(), list.end(), text) != list.end()) continue;
        list.push_back(text);
    }
    return 0;
}

}  // namespace SDK
