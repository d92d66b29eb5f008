// Owns the listening socket and the threads. It must not read requests (RequestHandler does).
#include "console/ConsoleServer.h"

#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/ThreadPool.h>
#include <fcntl.h>

#include <utility>

#include "RequestHandler.h"

namespace Console {

namespace {

constexpr int kMinThreads = 2;
constexpr int kMaxThreads = 32;
constexpr int kMaxQueued = 64;
constexpr int kTimeoutSeconds = 10;

class HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
  public:
    explicit HandlerFactory(ServerState& state) : state_(state) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(
        const Poco::Net::HTTPServerRequest&) override {
        return new RequestHandler(state_);  // the server owns it
    }

  private:
    ServerState& state_;
};

}  // namespace

class ConsoleServer::Impl {
  public:
    Impl(Options options, Access& access, Backend& backend)
        : options_(std::move(options)),
          state_(access, backend, options_.idle_limit),
          pool_("console", kMinThreads, kMaxThreads) {}

    void Start() {
        Poco::Net::ServerSocket socket;
        socket.bind(Poco::Net::SocketAddress(options_.address, options_.port), true);
        ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
        socket.listen(kMaxQueued);
        const std::string port = std::to_string(socket.address().port());
        state_.authority = options_.address + ":" + port;
        state_.local_authority = "localhost:" + port;
        Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
        params->setTimeout(Poco::Timespan(kTimeoutSeconds, 0));
        params->setMaxThreads(kMaxThreads);
        params->setMaxQueued(kMaxQueued);
        params->setKeepAlive(false);
        server_ = std::make_unique<Poco::Net::HTTPServer>(new HandlerFactory(state_), pool_, socket,
                                                          params);
        server_->start();
    }

    void Stop() {
        if (server_ == nullptr) return;
        state_.backend.Stop();
        server_->stopAll(true);
        server_.reset();
        pool_.joinAll();
    }

    const std::string& Authority() const { return state_.authority; }

  private:
    const Options options_;
    ServerState state_;
    Poco::ThreadPool pool_;
    std::unique_ptr<Poco::Net::HTTPServer> server_;
};

ConsoleServer::ConsoleServer(Options options, Access& access, Backend& backend)
    : impl_(std::make_unique<Impl>(std::move(options), access, backend)) {}

ConsoleServer::~ConsoleServer() {
    Stop();
}

bool ConsoleServer::Start(std::string& error) {
    try {
        impl_->Start();
        return true;
    } catch (const Poco::Exception& e) {
        error = "Cannot listen: " + e.displayText() + ".";
    }
    return false;
}

void ConsoleServer::Stop() {
    impl_->Stop();
}

std::string ConsoleServer::Url() const {
    return "http://" + impl_->Authority();
}

}  // namespace Console
