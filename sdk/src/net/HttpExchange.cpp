// Makes one request of its own session. Exceptions end here. Runs on the caller's thread.
#include "sdk/net/HttpExchange.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/URI.h>

#include <exception>

#include "net/HttpSession.h"
#include "net/SigPipeGuard.h"

namespace SDK {

using Poco::Net::HTTPRequest;

HttpAnswer ExchangeHttp(const HttpOrder& order, const HttpUtils::Limits& limits) {
    HttpAnswer answer;
    try {
        const SigPipeGuard guard;
        const Poco::URI url(order.url);
        const std::string resource = url.getPathAndQuery();
        HTTPRequest request(order.method, resource.empty() ? "/" : resource, HTTPRequest::HTTP_1_1);
        for (const auto& [name, value] : order.headers) request.set(name, value);
        if (order.method != HTTPRequest::HTTP_GET) {
            request.setContentLength64(static_cast<Poco::Int64>(order.body.size()));
        }
        Poco::Net::HTTPResponse response;
        HttpSession session(url, "", order.ca_file, limits);
        session.Send(url, request, order.body, response);
        answer.status = response.getStatus();
    } catch (const Poco::Exception& exception) {
        answer.error = exception.displayText();
    } catch (const std::exception& exception) {
        answer.error = exception.what();
    }
    return answer;
}

std::string HttpOrigin(const std::string& url) {
    try {
        const Poco::URI parsed(url);
        if (parsed.getHost().empty()) return "";
        Poco::URI origin;
        origin.setScheme(parsed.getScheme());
        origin.setAuthority(parsed.getHost());
        if (parsed.getPort() != origin.getPort()) origin.setPort(parsed.getPort());
        return origin.toString();
    } catch (const Poco::Exception&) {
        return "";
    }
}

}  // namespace SDK
