#pragma once

#include <Poco/Net/TCPServer.h>
#include <Poco/ThreadPool.h>

#include <memory>
#include <string>

#include "control/ConnectionRegistry.h"
#include "control/ControlConnection.h"
#include "control/Routes.h"

namespace Agent {

/// Serves the control API on a Unix socket that only root and the agent's user can open. Not
/// thread-safe: call Start and Stop on one thread.
class ControlServer {
  public:
    /// Number of requests served at the same time.
    static constexpr int kMaxThreads = 32;

    /// Borrows `routes`. `peer_check` decides whether a peer may use the API.
    explicit ControlServer(Routes& routes, ControlConnection::PeerCheck peer_check = IsTrustedPeer);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Listens on `socket_path` and replaces the socket of a killed agent; the caller holds the
    /// instance lock, so no other agent listens there. False with `error`.
    bool Start(const std::string& socket_path, std::string& error);

    /// Refuses new requests, closes connections that are still sending, gives the others two
    /// seconds, then closes them too. Safe to call twice. First stop everything that makes requests
    /// wait (ReportReader).
    void Stop();

  private:
    void Listen(const std::string& socket_path);

    Routes& routes_;
    const ControlConnection::PeerCheck peer_check_;
    ConnectionRegistry registry_;
    Poco::ThreadPool pool_;
    std::unique_ptr<Poco::Net::TCPServer> server_;
    std::string socket_path_;
};

}  // namespace Agent
