#include "ControlClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/StreamCopier.h>

#include "sdk/JsonUtils.h"

namespace Demo {

bool ControlClient::Get(const std::string& target, std::chrono::milliseconds timeout,
                        Json::Value& answer, std::string& error) const {
    namespace Net = Poco::Net;
    try {
        Net::StreamSocket socket;
        socket.connect(Net::SocketAddress(Net::SocketAddress::UNIX_LOCAL, socket_path_));
        Net::HTTPClientSession session(socket);
        session.setTimeout(Poco::Timespan(std::chrono::microseconds(timeout).count()));
        Net::HTTPRequest request(Net::HTTPRequest::HTTP_GET, target, Net::HTTPRequest::HTTP_1_1);
        request.setHost("localhost");
        session.sendRequest(request);
        Net::HTTPResponse response;
        std::string body;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
        if (SDK::JsonUtils::ParseJsonStr(body.data(), body.size(), answer, error) != 0) {
            return false;
        }
        if (response.getStatus() == Net::HTTPResponse::HTTP_OK) return true;
        error = SDK::JsonUtils::GetStringValue(answer, "error", "no reason given");
    } catch (const Poco::Exception& e) {
        error = "no agent answers at " + socket_path_ + ": " + e.displayText();
    }
    return false;
}

}  // namespace Demo
