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

/// True when the process at the other end of the Unix socket is root's or of our own user.
bool IsAdmittedPeer(const Poco::Net::StreamSocket& socket);

/// One connection to the control API: one request, one JSON answer, and closed. Runs on a thread
/// of the server's pool; nothing is thrown out of it.
class ControlConnection : public Poco::Net::TCPServerConnection {
  public:
    using Admission = std::function<bool(const Poco::Net::StreamSocket&)>;

    /// Borrows what outlives the server.
    ControlConnection(const Poco::Net::StreamSocket& stream,
                      Poco::Net::HTTPServerParams::Ptr params, Routes& routes,
                      ConnectionRegistry& registry, const Admission& admission);

    void run() override;

  private:
    void Serve(ConnectionRegistry::Place& place);
    Reply Answer(Poco::Net::HTTPServerRequestImpl& request,
                 Poco::Net::HTTPServerResponseImpl& response, ConnectionRegistry::Place& place);

    Poco::Net::HTTPServerParams::Ptr params_;
    Routes& routes_;
    ConnectionRegistry& registry_;
    const Admission& admission_;
};

}  // namespace Agent
