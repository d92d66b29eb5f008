#include <fleet/NameLookup.h>
#include <netdb.h>

#include <array>

namespace Fleet {

struct NameLookup::Request {
    explicit Request(const std::string& name) : host(name) { block.ar_name = host.c_str(); }
    ~Request() {
        if (block.ar_result != nullptr) ::freeaddrinfo(block.ar_result);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    const std::string host;
    gaicb block{};
    bool begun = false;
};

NameLookup::NameLookup(const std::string& host) : request_(std::make_unique<Request>(host)) {
    std::array<gaicb*, 1> list{&request_->block};
    request_->begun = ::getaddrinfo_a(GAI_NOWAIT, list.data(), 1, nullptr) == 0;
}

NameLookup::~NameLookup() {
    if (!request_->begun || ::gai_cancel(&request_->block) != EAI_NOTCANCELED) return;
    // The C library's thread still writes to it. A few hundred bytes for each time that a stop
    // comes between question and answer.
    static_cast<void>(request_.release());
}

NameLookup::Result NameLookup::Poll() {
    if (!request_->begun) return Result::kNotFound;
    const int code = ::gai_error(&request_->block);
    if (code == EAI_INPROGRESS) return Result::kPending;
    return code == 0 ? Result::kFound : Result::kNotFound;
}

}  // namespace Fleet
