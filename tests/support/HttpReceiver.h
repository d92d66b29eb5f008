#pragma once

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/StreamCopier.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace test {

/// A web server on loopback that keeps what it is sent.
class HttpReceiver {
  public:
    struct Request {
        std::string method;
        std::string uri;
        Poco::Net::HTTPRequest header;
        std::string body;
    };

    HttpReceiver()
        : socket_(Poco::Net::SocketAddress("127.0.0.1", 0)),
          server_(new Factory(*this), socket_, new Poco::Net::HTTPServerParams) {
        server_.start();
    }
    ~HttpReceiver() { server_.stopAll(true); }
    HttpReceiver(const HttpReceiver&) = delete;
    HttpReceiver& operator=(const HttpReceiver&) = delete;

    std::string Url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(socket_.address().port()) + path;
    }

    /// The status of the next answers.
    void Answer(int status) { status_ = status; }

    std::vector<Request> Requests() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

  private:
    struct Handler : Poco::Net::HTTPRequestHandler {
        explicit Handler(HttpReceiver& to) : receiver(to) {}
        void handleRequest(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response) override {
            Request seen{request.getMethod(), request.getURI(), request, ""};
            Poco::StreamCopier::copyToString(request.stream(), seen.body);
            {
                const std::lock_guard<std::mutex> lock(receiver.mutex_);
                receiver.requests_.push_back(seen);
            }
            response.setStatus(
                static_cast<Poco::Net::HTTPResponse::HTTPStatus>(receiver.status_.load()));
            if (receiver.status_ == 302) response.set("Location", receiver.Url("/elsewhere"));
            response.setContentLength(0);
            response.send();
        }
        HttpReceiver& receiver;
    };
    struct Factory : Poco::Net::HTTPRequestHandlerFactory {
        explicit Factory(HttpReceiver& to) : receiver(to) {}
        Poco::Net::HTTPRequestHandler* createRequestHandler(
            const Poco::Net::HTTPServerRequest&) override {
            return new Handler(receiver);
        }
        HttpReceiver& receiver;
    };

    std::atomic<int> status_{200};
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    Poco::Net::ServerSocket socket_;
    Poco::Net::HTTPServer server_;
};

}  // namespace test
