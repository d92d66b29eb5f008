#pragma once

#include <string>
#include <utility>
#include <vector>

#include "sdk/net/HttpUtils.h"

namespace SDK {

/// One request to a web server.
struct HttpOrder {
    std::string method = "GET";
    std::string url;  ///< http: or https:
    std::vector<std::pair<std::string, std::string>> headers = {};
    std::string body = {};     ///< sent with its length, except with GET
    std::string ca_file = {};  ///< empty: the system's certificates
};

struct HttpAnswer {
    int status = 0;     ///< 0: there was no answer
    std::string error;  ///< why there was none
};

/// Sends one request. Checks the server's certificate and name; follows no redirect; does not read
/// the answer's body. Blocks within the limits; ends early when the calling thread's
/// CommandInterrupter is interrupted. Thread-safe.
HttpAnswer ExchangeHttp(const HttpOrder& order, const HttpUtils::Limits& limits);

/// `url` as scheme, host and port only: the rest may hold secrets. Empty when it is no URL.
std::string HttpOrigin(const std::string& url);

}  // namespace SDK
