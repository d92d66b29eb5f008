#pragma once

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Sessions.h"
#include "console/Access.h"
#include "console/Backend.h"

namespace Console {

/// What all requests of a server share.
struct ServerState {
    ServerState(Access& who, Backend& what, std::chrono::seconds idle_limit)
        : access(who), backend(what), sessions(idle_limit) {}

    Access& access;
    Backend& backend;
    Sessions sessions;
    std::vector<std::string> names;  ///< what the Host header may say
    std::string scheme;              ///< "http" or "https"
};

/// Answers one HTTP request. For one use.
class RequestHandler : public Poco::Net::HTTPRequestHandler {
  public:
    explicit RequestHandler(ServerState& state) : state_(state) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override;

  private:
    bool IsSecure() const { return state_.scheme == "https"; }
    bool IsForUs(const Poco::Net::HTTPServerRequest& request) const;
    bool IsFromOurPage(const Poco::Net::HTTPServerRequest& request) const;
    void SendPage(const std::string& path, Poco::Net::HTTPServerResponse& response) const;
    Reply AnswerApi(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response,
                    const std::vector<std::string>& path);
    Reply LogIn(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response);
    Reply Describe(const std::optional<Sessions::Session>& session) const;

    ServerState& state_;
};

}  // namespace Console
