// Owns the translation between HTTP and the routes, and the limits of requests. Must not know the
// operations (Routes does) or keep data between connections. Each connection runs on one thread of
// the control server's pool.
#include "control/ControlConnection.h"

#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/NetException.h>
#include <Poco/URI.h>
#include <fcntl.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <optional>

#include "common/ControlProtocol.h"

namespace Agent {

using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequestImpl;
using Poco::Net::HTTPServerResponseImpl;

namespace {

constexpr std::size_t kReadBytes = 64 * 1024;
/// How much of an oversized body is read and discarded, so that a client that sends everything
/// before it reads gets its answer.
constexpr std::size_t kMaxDrainBytes = 64 * 1024 * 1024;

void Send(HTTPServerResponseImpl& response, const Reply& reply) {
    const std::string text = SDK::JsonUtils::JsonToString(reply.body) + "\n";
    response.setVersion(Poco::Net::HTTPMessage::HTTP_1_1);
    response.setStatusAndReason(static_cast<HTTPResponse::HTTPStatus>(reply.status));
    response.setContentType("application/json");
    response.setKeepAlive(false);
    if (!reply.allow.empty()) response.set("Allow", reply.allow);
    response.setContentLength(static_cast<std::streamsize>(text.size()));
    response.send() << text << std::flush;
}

Reply TooLarge() {
    return ErrorReply(413, "The document is larger than the " +
                               std::to_string(kMaxBodyBytes / (1024 * 1024)) +
                               " MiB that the agent takes.");
}

/// A body may be a password or a key, which must not stay in memory.
void Clear(char* data, std::size_t size) {
    ::explicit_bzero(data, size);
}

/// Discards the rest of the body, up to a limit.
void Drain(std::istream& stream) {
    std::array<char, kReadBytes> buffer{};
    std::size_t drained = 0;
    while (drained < kMaxDrainBytes && stream.read(buffer.data(), buffer.size())) {
        drained += buffer.size();
    }
}

/// Reads the body; returns a reply when it is refused.
std::optional<Reply> ReadBody(HTTPServerRequestImpl& request, HTTPServerResponseImpl& response,
                              std::string& body) {
    const bool has_length = request.hasContentLength();
    if (!has_length && !request.getChunkedTransferEncoding()) {
        return ErrorReply(411, "The request needs a Content-Length.");
    }
    const Poco::Int64 length = has_length ? request.getContentLength64() : 0;
    if (length < 0) return ErrorReply(400, "The Content-Length is not a size.");
    if (length > static_cast<Poco::Int64>(kMaxBodyBytes)) {
        if (!request.getExpectContinue()) Drain(request.stream());
        return TooLarge();
    }
    if (request.getExpectContinue()) response.sendContinue();
    std::istream& stream = request.stream();
    std::array<char, kReadBytes> buffer{};
    while (stream.read(buffer.data(), buffer.size()) || stream.gcount() > 0) {
        body.append(buffer.data(), static_cast<std::size_t>(stream.gcount()));
        Clear(buffer.data(), static_cast<std::size_t>(stream.gcount()));
        if (body.size() > kMaxBodyBytes) {
            Drain(stream);
            return TooLarge();
        }
    }
    if (has_length && static_cast<Poco::Int64>(body.size()) != length) {
        return ErrorReply(400, "The request ended before its Content-Length.");
    }
    return std::nullopt;
}

/// False when the address is not a URL.
bool ParseAddress(const std::string& address, ControlRequest& request) {
    try {
        const Poco::URI uri(address);
        uri.getPathSegments(request.path);
        request.parameters = uri.getQueryParameters();
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

Peer PeerOf(const Poco::Net::StreamSocket& socket) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (::getsockopt(socket.impl()->sockfd(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return {};
    }
    return {peer.uid, peer.pid};
}

}  // namespace

bool IsTrustedPeer(const Poco::Net::StreamSocket& socket) {
    const Peer peer = PeerOf(socket);
    return peer.user == 0 || peer.user == ::geteuid();
}

ControlConnection::ControlConnection(const Poco::Net::StreamSocket& stream,
                                     Poco::Net::HTTPServerParams::Ptr params, Routes& routes,
                                     ConnectionRegistry& registry, const PeerCheck& peer_check)
    : TCPServerConnection(stream),
      params_(std::move(params)),
      routes_(routes),
      registry_(registry),
      peer_check_(peer_check) {}

void ControlConnection::run() {
    ConnectionRegistry::Connection connection(registry_, socket().impl()->sockfd());
    try {
        ::fcntl(socket().impl()->sockfd(), F_SETFD, FD_CLOEXEC);
        Serve(connection);
    } catch (const Poco::Exception& e) {
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_DEBUG,
                "control connection ended early: %s", e.displayText());
    } catch (const std::exception& e) {
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_ERROR,
                "control connection: %s", std::string(e.what()));
    }
}

void ControlConnection::Serve(ConnectionRegistry::Connection& connection) {
    Poco::Net::HTTPServerSession session(socket(), params_);
    if (!peer_check_(socket())) {
        HTTPServerResponseImpl response(session);
        Send(response,
             ErrorReply(403, "Only root and the agent's own user may talk to the agent."));
        return;
    }
    std::string problem;
    try {
        HTTPServerResponseImpl response(session);
        HTTPServerRequestImpl request(response, session, params_.get());
        Send(response, Answer(request, response, connection));
        return;
    } catch (const Poco::Net::NoMessageException&) {
        return;  // the client closed without a request
    } catch (const Poco::Net::MessageException&) {
        problem = "This is not a request that HTTP knows.";
    } catch (const Poco::SyntaxException&) {
        problem = "A number in the request's header is none.";
    }
    // A response that has seen a broken request still refers to it; this one does not.
    HTTPServerResponseImpl response(session);
    Send(response, ErrorReply(400, problem));
}

Reply ControlConnection::Answer(HTTPServerRequestImpl& request, HTTPServerResponseImpl& response,
                                ConnectionRegistry::Connection& connection) {
    try {
        ControlRequest wanted;
        wanted.method = request.getMethod();
        wanted.peer = PeerOf(socket());
        if (!ParseAddress(request.getURI(), wanted)) {
            return ErrorReply(400, "The address is not a URL.");
        }
        if (wanted.method == "PUT" || wanted.method == "POST") {
            if (auto refused = ReadBody(request, response, wanted.body)) return *refused;
        }
        connection.MarkRequestRead();
        Reply reply = routes_.Handle(wanted);
        Clear(wanted.body.data(), wanted.body.size());
        return reply;
    } catch (const Poco::Net::NetException&) {
        throw;
    } catch (const Poco::TimeoutException&) {
        return ErrorReply(408, "The request did not arrive in time.");
    } catch (const std::exception& e) {
        return ErrorReply(500, std::string("The agent failed to answer: ") + e.what());
    }
}

}  // namespace Agent
