// Owns one connection per request. Must not print or interpret answers (the commands do). Runs
// on the caller's thread.
#include "ctl/client/ControlClient.h"

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace Ctl {

namespace {

constexpr int kShortTimeoutS = 30;
constexpr int kForbidden = 403;

/// A socket that was connected before, so that errno tells why that failed.
class ConnectedSocket : public Poco::Net::StreamSocket {
  public:
    explicit ConnectedSocket(int fd) : StreamSocket(new Poco::Net::StreamSocketImpl(fd)) {}
};

/// 0 or errno.
int Connect(const std::string& path, SDK::FileDescriptor& socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    socket.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) return errno;
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    return ::connect(socket.Get(), generic, sizeof(address)) == 0 ? 0 : errno;
}

Answer Failure(Answer::Kind kind, const std::string& problem) {
    Answer answer;
    answer.kind = kind;
    answer.problem = problem;
    return answer;
}

Answer Unreachable(const std::string& path, int error) {
    if (error == EACCES || error == EPERM) {
        return Failure(Answer::Kind::kDenied, "Permission denied for " + path +
                                                  ". Only root and the user that the agent runs "
                                                  "as may talk to it; try with sudo.");
    }
    if (error != ENOENT && error != ECONNREFUSED && error != ENOTDIR) {
        return Failure(Answer::Kind::kNoAgent,
                       "Cannot connect to " + path + ": " + std::strerror(error) + ".");
    }
    return Failure(Answer::Kind::kNoAgent, "No agent answers at " + path + ". Start it with " +
                                               SDK::PathUtils::GetInstallationPath() +
                                               "bin/morvane_agent --daemon, or name another with "
                                               "--socket.");
}

}  // namespace

Answer ControlClient::Get(const std::string& address) const {
    return Send(Poco::Net::HTTPRequest::HTTP_GET, address, "", kShortTimeoutS);
}

Answer ControlClient::Send(const std::string& method, const std::string& address,
                           const std::string& body, int timeout_s) const {
    SDK::FileDescriptor socket;
    if (const int error = Connect(socket_path_, socket); error != 0) {
        return Unreachable(socket_path_, error);
    }
    try {
        return Exchange(socket.Release(), method, address, body, timeout_s);
    } catch (const Poco::TimeoutException&) {
        return Failure(Answer::Kind::kBroken, "The agent did not answer within " +
                                                  std::to_string(timeout_s) + " seconds.");
    } catch (const Poco::Net::NetException&) {
        return Failure(Answer::Kind::kNoAgent,
                       "The agent at " + socket_path_ + " went away before it answered.");
    } catch (const Poco::IOException&) {
        return Failure(Answer::Kind::kNoAgent,
                       "The agent at " + socket_path_ + " went away before it answered.");
    } catch (const std::exception& e) {
        return Failure(Answer::Kind::kBroken,
                       "Talking to " + socket_path_ + " failed: " + std::string(e.what()) + ".");
    }
}

Answer ControlClient::Exchange(int socket, const std::string& method, const std::string& address,
                               const std::string& body, int timeout_s) const {
    const ConnectedSocket connected(socket);
    Poco::Net::HTTPClientSession session(connected);
    session.setTimeout(Poco::Timespan(timeout_s, 0));
    Poco::Net::HTTPRequest request(method, address, Poco::Net::HTTPMessage::HTTP_1_1);
    request.setHost("localhost");
    request.setKeepAlive(false);
    if (!body.empty() || method != Poco::Net::HTTPRequest::HTTP_GET) {
        request.setContentType("application/json");
        request.setContentLength(static_cast<std::streamsize>(body.size()));
    }
    session.sendRequest(request) << body << std::flush;
    Poco::Net::HTTPResponse response;
    std::string text;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), text);

    Answer answer;
    answer.status = response.getStatus();
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), answer.body) != 0) {
        answer.problem = "What answers at " + socket_path_ + " is not an agent.";
        return answer;
    }
    answer.problem = SDK::JsonUtils::GetStringValue(answer.body, "error", "");
    answer.kind = answer.status == kForbidden ? Answer::Kind::kDenied : Answer::Kind::kAnswered;
    return answer;
}

std::string Encoded(const std::string& segment) {
    std::string text;
    Poco::URI::encode(segment, "/?#%&=+;", text);
    return text;
}

}  // namespace Ctl
