#pragma once

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/URI.h>

#include <functional>
#include <memory>
#include <string>

#include "sdk/net/HttpUtils.h"

namespace SDK {

/// One HTTP or HTTPS connection. The calling thread's CommandInterrupter ends its waits, except the
/// connection to https through a proxy. Throws DownloadError or Poco's exceptions. Not thread-safe.
class HttpSession {
  public:
    /// `proxy_url` and `ca_file` may be empty. Blocks until the address of the host or proxy is
    /// known; connects with the first request.
    HttpSession(const Poco::URI& url, const std::string& proxy_url, const std::string& ca_file,
                const HttpUtils::Limits& limits);
    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    /// Sends a GET and blocks until the header of the answer; returns its body.
    std::istream& Get(const Poco::URI& url, Poco::Net::HTTPResponse& response);

    /// Sends `request`, completed by the host, with `body`, and blocks until the header of the
    /// answer; returns the answer's body.
    std::istream& Send(const Poco::URI& url, Poco::Net::HTTPRequest& request,
                       const std::string& body, Poco::Net::HTTPResponse& response);

    /// Blocks until `body` has more bytes and reads at most `size` of them; 0 at the end.
    std::size_t Read(std::istream& body, char* data, std::size_t size);

  private:
    void SetProxy(const std::string& proxy_url);
    void WaitForBytes();

    const HttpUtils::Limits limits_;
    std::unique_ptr<Poco::Net::HTTPClientSession> session_;
    std::function<bool()> holds_bytes_;  // received bytes that were not read yet
};

}  // namespace SDK
