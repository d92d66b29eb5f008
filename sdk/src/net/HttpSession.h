#pragma once

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/URI.h>

#include <functional>
#include <memory>
#include <string>

#include "sdk/net/HttpUtils.h"

namespace SDK {

/// One HTTP or HTTPS connection whose waits the calling thread's CommandInterrupter ends, but, for
/// https, the way through a proxy. Throws DownloadError, or what Poco throws.
class HttpSession {
  public:
    /// `proxy_url` and `ca_file` may be empty. Waits for the address of the
    /// host, or of the proxy; connects with the first request.
    HttpSession(const Poco::URI& url, const std::string& proxy_url, const std::string& ca_file,
                const HttpUtils::Limits& limits);
    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    /// Sends a GET and waits for the header of the answer; the stream is its body.
    std::istream& Get(const Poco::URI& url, Poco::Net::HTTPResponse& response);

    /// Waits until the next bytes of `body` are there and hands out at most `size` of them; 0 at
    /// the end.
    std::size_t Read(std::istream& body, char* data, std::size_t size);

  private:
    void SetProxy(const std::string& proxy_url);
    void WaitForBytes();

    const HttpUtils::Limits limits_;
    std::unique_ptr<Poco::Net::HTTPClientSession> session_;
    std::function<bool()> holds_bytes_;  // bytes that were received and not read yet
};

}  // namespace SDK
