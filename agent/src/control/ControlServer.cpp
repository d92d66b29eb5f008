// Owns the listening socket, its threads and the registry of connections. Must not read requests
// (ControlConnection does) or answer them (Routes does). Poco's accept thread and the pool's
// threads run below it.
#include "control/ControlServer.h"

#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace Agent {

namespace {

using Poco::Net::StreamSocket;

constexpr int kMinThreads = 2;
constexpr int kMaxQueued = 64;
constexpr int kThreadIdleSeconds = 10;
constexpr int kSocketTimeoutSeconds = 10;
constexpr auto kMaxRequestTime = std::chrono::seconds(15);
constexpr int kStopGraceMs = 2000;

class ConnectionFactory : public Poco::Net::TCPServerConnectionFactory {
  public:
    ConnectionFactory(Poco::Net::HTTPServerParams::Ptr params, Routes& routes,
                      ConnectionRegistry& registry, const ControlConnection::PeerCheck& peer_check)
        : params_(std::move(params)),
          routes_(routes),
          registry_(registry),
          peer_check_(peer_check) {}

    Poco::Net::TCPServerConnection* createConnection(const StreamSocket& socket) override {
        return new ControlConnection(socket, params_, routes_, registry_, peer_check_);
    }

  private:
    Poco::Net::HTTPServerParams::Ptr params_;
    Routes& routes_;
    ConnectionRegistry& registry_;
    const ControlConnection::PeerCheck& peer_check_;
};

/// Accepts every client, but closes slow ones first. Runs on the accept thread.
class SlowClientFilter : public Poco::Net::TCPServerConnectionFilter {
  public:
    explicit SlowClientFilter(ConnectionRegistry& registry) : registry_(registry) {}
    bool accept(const StreamSocket&) override {
        registry_.ShutdownSlow(kMaxRequestTime);
        return true;
    }

  private:
    ConnectionRegistry& registry_;
};

Poco::Net::HTTPServerParams::Ptr MakeParams() {
    Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
    params->setTimeout(Poco::Timespan(kSocketTimeoutSeconds, 0));
    params->setMaxThreads(ControlServer::kMaxThreads);
    params->setMaxQueued(kMaxQueued);
    params->setThreadIdleTime(Poco::Timespan(kThreadIdleSeconds, 0));
    params->setKeepAlive(false);
    return params;
}

}  // namespace

ControlServer::ControlServer(Routes& routes, ControlConnection::PeerCheck peer_check)
    : routes_(routes),
      peer_check_(std::move(peer_check)),
      pool_("control", kMinThreads, kMaxThreads, kThreadIdleSeconds) {}

ControlServer::~ControlServer() {
    Stop();
}

bool ControlServer::Start(const std::string& socket_path, std::string& error) {
    if (socket_path.size() >= sizeof(sockaddr_un::sun_path)) {
        error =
            "the path of the control socket is longer than a Unix socket's may be: " + socket_path;
        return false;
    }
    try {
        Listen(socket_path);
        return true;
    } catch (const Poco::Exception& e) {
        error = "cannot listen on " + socket_path + ": " + e.displayText();
    } catch (const std::exception& e) {
        error = "cannot listen on " + socket_path + ": " + e.what();
    }
    server_.reset();
    return false;
}

/// The process's umask and the 0700 directory exclude others between bind and chmod.
void ControlServer::Listen(const std::string& socket_path) {
    if (::unlink(socket_path.c_str()) != 0 && errno != ENOENT) {
        throw Poco::FileException(std::strerror(errno));
    }
    Poco::Net::ServerSocket socket;
    socket.bind(Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, socket_path));
    socket_path_ = socket_path;
    ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
    if (::chmod(socket_path.c_str(), 0600) != 0) throw Poco::FileException(std::strerror(errno));
    socket.listen();

    const Poco::Net::HTTPServerParams::Ptr params = MakeParams();
    server_ = std::make_unique<Poco::Net::TCPServer>(
        new ConnectionFactory(params, routes_, registry_, peer_check_), pool_, socket, params);
    server_->setConnectionFilter(new SlowClientFilter(registry_));
    server_->start();
}

void ControlServer::Stop() {
    if (!server_) return;
    server_->stop();
    ::unlink(socket_path_.c_str());
    registry_.ShutdownSlow(std::chrono::milliseconds(0));
    registry_.WaitUntilEmpty(std::chrono::milliseconds(kStopGraceMs));
    registry_.ShutdownAll();
    server_.reset();
    pool_.joinAll();
}

}  // namespace Agent
