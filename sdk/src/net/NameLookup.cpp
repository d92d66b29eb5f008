// The resolver cannot be interrupted. So it runs on a detached thread, whose code is in this
// library: modules can be unloaded.
#include <netdb.h>
#include <sdk/net/NameLookup.h>

#include <system_error>
#include <thread>

namespace SDK {

namespace {

NameLookup::Result Resolve(const std::string& host, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
        return NameLookup::Result::kNotFound;
    }
    ::freeaddrinfo(found);
    return NameLookup::Result::kFound;
}

}  // namespace

NameLookup::NameLookup(const std::string& host)
    : result_(std::make_shared<std::atomic<Result>>(Resolve(host, AI_NUMERICHOST))) {
    if (*result_ == Result::kFound) return;
    *result_ = Result::kPending;
    try {
        std::thread([host, result = result_] { *result = Resolve(host, 0); }).detach();
    } catch (const std::system_error&) {
        *result_ = Result::kNotFound;
    }
}

}  // namespace SDK
