#pragma once

#include <Poco/Net/TCPServer.h>
#include <Poco/ThreadPool.h>

#include <memory>
#include <string>

#include "control/ConnectionRegistry.h"
#include "control/ControlConnection.h"
#include "control/Routes.h"

namespace Agent {

/// Serves the control API on a Unix socket that only root and our own user can open. Start and
/// Stop are for one thread.
class ControlServer {
  public:
    /// How many requests are served side by side.
    static constexpr int kMaxThreads = 32;

    /// Borrows `routes`. `admission` says whether a peer may talk to us.
    explicit ControlServer(Routes& routes, ControlConnection::Admission admission = IsAdmittedPeer);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Replaces a socket that a killed agent left behind: the caller holds the instance lock, so
    /// nobody else listens there. False with `error`.
    bool Start(const std::string& socket_path, std::string& error);

    /// Takes no more requests, cuts those that are still being sent, gives the others a moment to
    /// end and then cuts them too. May be
    /// called twice. Whoever makes requests wait is stopped first (ReportReader).
    void Stop();

  private:
    void Listen(const std::string& socket_path);

    Routes& routes_;
    const ControlConnection::Admission admission_;
    ConnectionRegistry registry_;
    Poco::ThreadPool pool_;
    std::unique_ptr<Poco::Net::TCPServer> server_;
    std::string socket_path_;
};

}  // namespace Agent
