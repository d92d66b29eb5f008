#pragma once

#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponseImpl.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Net/TCPServerConnectionFactory.h>

#include <functional>

#include "control/ConnectionRegistry.h"
#include "control/Routes.h"

namespace Agent {

/// True when the peer of the Unix socket runs as root or as the agent's user.
bool IsTrustedPeer(const Poco::Net::StreamSocket& socket);

/// One connection to the control API: one request, one JSON answer, then it is closed. Runs on a
/// thread of the server's pool; throws nothing.
class ControlConnection : public Poco::Net::TCPServerConnection {
  public:
    using PeerCheck = std::function<bool(const Poco::Net::StreamSocket&)>;

    /// All references are borrowed and outlive the server.
    ControlConnection(const Poco::Net::StreamSocket& stream,
                      Poco::Net::HTTPServerParams::Ptr params, Routes& routes,
                      ConnectionRegistry& registry, const PeerCheck& peer_check);

    void run() override;

  private:
    void Serve(ConnectionRegistry::Connection& connection);
    Reply Answer(Poco::Net::HTTPServerRequestImpl& request,
                 Poco::Net::HTTPServerResponseImpl& response,
                 ConnectionRegistry::Connection& connection);

    Poco::Net::HTTPServerParams::Ptr params_;
    Routes& routes_;
    ConnectionRegistry& registry_;
    const PeerCheck& peer_check_;
};

}  // namespace Agent
