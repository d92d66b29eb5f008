// Owns one connection and its TLS context. Must not follow redirects or write files (Download
// does). Runs on the caller's thread.
#include "net/HttpSession.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPBasicCredentials.h>
#include <Poco/Net/HTTPCredentials.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <istream>

#include "net/DownloadError.h"
#include "net/NameResolver.h"
#include "net/SocketWait.h"

namespace SDK {

namespace {

using Poco::Net::Context;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::SecureStreamSocket;
using Poco::Net::StreamSocket;

constexpr const char* kSystemCertificates = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* kCiphers = "HIGH:!aNULL:!eNULL:!MD5:!RC4";
constexpr const char* kUserAgent = "morvane_agent";
constexpr int kVerificationDepth = 9;

Context::Ptr MakeContext(const std::string& ca_file) {
    const bool built_in = ca_file.empty() && ::access(kSystemCertificates, R_OK) != 0;
    const std::string location = !ca_file.empty() ? ca_file : built_in ? "" : kSystemCertificates;
    Context::Ptr context(new Context(Context::TLS_CLIENT_USE, location, Context::VERIFY_STRICT,
                                     kVerificationDepth, built_in, kCiphers));
    context->requireMinimumProtocol(Context::PROTO_TLSV1_2);
    return context;
}

/// The TLS handshake over the non-blocking `plain`, and the check of the host name.
SecureStreamSocket Handshake(const StreamSocket& plain, const std::string& host,
                             const Context::Ptr& context, int timeout_ms) {
    SecureStreamSocket secure = SecureStreamSocket::attach(plain, host, context);
    for (int state = secure.completeHandshake(); state <= 0; state = secure.completeHandshake()) {
        const bool wants_write = state == SecureStreamSocket::ERR_SSL_WANT_WRITE;
        if (!wants_write && state != SecureStreamSocket::ERR_SSL_WANT_READ) {
            throw DownloadError("the server ended the TLS handshake");
        }
        WaitForSocket(secure, wants_write ? POLLOUT : POLLIN, timeout_ms, "TLS handshake");
    }
    secure.verifyPeerCertificate(host);
    return secure;
}

Poco::Timespan Milliseconds(int milliseconds) {
    return Poco::Timespan(Poco::Timespan::TimeDiff{milliseconds} * Poco::Timespan::MILLISECONDS);
}

/// Makes reads and writes block, as the Poco session expects.
void MakeBlocking(StreamSocket& socket, const HttpUtils::Limits& limits) {
    socket.setBlocking(true);
    socket.setReceiveTimeout(Milliseconds(limits.stall_timeout_ms));
    socket.setSendTimeout(Milliseconds(limits.stall_timeout_ms));
}

/// Used instead of the name, so that the Poco session itself does no lookup, which could not be
/// interrupted.
std::string AddressOf(const std::string& host, const HttpUtils::Limits& limits) {
    return NameResolver::Resolve(host, limits.resolve_timeout_ms).toString();
}

class PlainSession : public Poco::Net::HTTPClientSession {
  public:
    PlainSession(const std::string& host, const Poco::URI& url, const HttpUtils::Limits& limits)
        : HTTPClientSession(host, url.getPort()), limits_(limits) {}

    bool HoldsBytes() const { return buffered() > 0; }

  protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        StreamSocket made = ConnectSocket(address, limits_.connect_timeout_ms);
        MakeBlocking(made, limits_);
        attachSocket(made);
    }

  private:
    const HttpUtils::Limits limits_;
};

class TlsSession : public Poco::Net::HTTPSClientSession {
  public:
    TlsSession(const std::string& host, const Poco::URI& url, const Context::Ptr& context,
               const HttpUtils::Limits& limits)
        : HTTPSClientSession(host, url.getPort(), context),
          name_(url.getHost()),
          context_(context),
          limits_(limits) {}

    bool HoldsBytes() { return buffered() > 0 || socket().available() > 0; }

  protected:
    void connect(const Poco::Net::SocketAddress& address) override {
        if (!getProxyHost().empty()) {
            HTTPSClientSession::connect(address);
            return;
        }
        const int timeout_ms = limits_.connect_timeout_ms;
        const StreamSocket plain = ConnectSocket(address, timeout_ms);
        SecureStreamSocket secure = Handshake(plain, name_, context_, timeout_ms);
        MakeBlocking(secure, limits_);
        attachSocket(secure);
    }

  private:
    const std::string name_;  // that the server's certificate must have
    const Context::Ptr context_;
    const HttpUtils::Limits limits_;
};

}  // namespace

HttpSession::HttpSession(const Poco::URI& url, const std::string& proxy_url,
                         const std::string& ca_file, const HttpUtils::Limits& limits)
    : limits_(limits) {
    const std::string host =
        proxy_url.empty() ? AddressOf(url.getHost(), limits) : url.getHost();  // else the proxy's
    if (url.getScheme() == "https") {
        auto session = std::make_unique<TlsSession>(host, url, MakeContext(ca_file), limits);
        holds_bytes_ = [tls = session.get()] { return tls->HoldsBytes(); };
        session_ = std::move(session);
    } else {
        auto session = std::make_unique<PlainSession>(host, url, limits);
        holds_bytes_ = [plain = session.get()] { return plain->HoldsBytes(); };
        session_ = std::move(session);
    }
    const Poco::Timespan stall = Milliseconds(limits.stall_timeout_ms);
    session_->setTimeout(Milliseconds(limits.connect_timeout_ms), stall, stall);
    if (!proxy_url.empty()) SetProxy(proxy_url);
}

HttpSession::~HttpSession() = default;

void HttpSession::SetProxy(const std::string& proxy_url) {
    const Poco::URI proxy(proxy_url);
    if (proxy.getScheme() != "http" || proxy.getHost().empty()) {
        throw DownloadError("the proxy must be given as http://HOST:PORT");
    }
    session_->setProxy(AddressOf(proxy.getHost(), limits_), proxy.getPort());
    if (proxy.getUserInfo().empty()) return;
    std::string user;
    std::string password;
    Poco::Net::HTTPCredentials::extractCredentials(proxy, user, password);
    session_->setProxyCredentials(user, password);
}

std::istream& HttpSession::Get(const Poco::URI& url, HTTPResponse& response) {
    const std::string resource = url.getPathAndQuery();
    HTTPRequest request(HTTPRequest::HTTP_GET, resource.empty() ? "/" : resource,
                        HTTPRequest::HTTP_1_1);
    return Send(url, request, "", response);
}

std::istream& HttpSession::Send(const Poco::URI& url, HTTPRequest& request, const std::string& body,
                                HTTPResponse& response) {
    request.set("User-Agent", kUserAgent);
    request.set("Accept-Encoding", "identity");
    request.setKeepAlive(false);
    request.setHost(url.getHost(), url.getPort());  // the session has only the address
    if (!url.getUserInfo().empty()) {
        std::string user;
        std::string password;
        Poco::Net::HTTPCredentials::extractCredentials(url, user, password);
        Poco::Net::HTTPBasicCredentials(user, password).authenticate(request);
    }
    (session_->sendRequest(request) << body).flush();
    WaitForBytes();
    return session_->receiveResponse(response);
}

void HttpSession::WaitForBytes() {
    if (holds_bytes_()) return;
    WaitForSocket(session_->socket(), POLLIN, limits_.stall_timeout_ms, "further bytes");
}

std::size_t HttpSession::Read(std::istream& body, char* data, std::size_t size) {
    if (body.rdbuf()->in_avail() <= 0) {
        WaitForBytes();
        if (body.peek() == std::istream::traits_type::eof()) {
            if (session_->networkException() != nullptr) session_->networkException()->rethrow();
            return 0;
        }
    }
    return static_cast<std::size_t>(body.readsome(data, static_cast<std::streamsize>(size)));
}

}  // namespace SDK
