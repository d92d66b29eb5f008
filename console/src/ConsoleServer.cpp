// Owns the listening socket and the threads. It must not read requests (RequestHandler does).
#include "console/ConsoleServer.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/SecureServerSocket.h>
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
        Poco::Net::ServerSocket socket = NewSocket();
        socket.bind(Poco::Net::SocketAddress(options_.address, options_.port), true);
        ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
        socket.listen(kMaxQueued);
        const std::string port = std::to_string(socket.address().port());
        state_.names = options_.names;
        state_.names.push_back(options_.address + ":" + port);
        state_.names.push_back("localhost:" + port);
        state_.scheme = options_.certificate.empty() ? "http" : "https";
        url_ = state_.scheme + "://" + options_.address + ":" + port;
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

    const std::string& Url() const { return url_; }

  private:
    Poco::Net::ServerSocket NewSocket() const {
        if (options_.certificate.empty()) return Poco::Net::ServerSocket();
        Poco::Net::Context::Params params;
        params.certificateFile = options_.certificate;
        params.privateKeyFile = options_.key;
        params.verificationMode = Poco::Net::Context::VERIFY_NONE;  // of clients
        Poco::Net::Context::Ptr context =
            new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, params);
        context->requireMinimumProtocol(Poco::Net::Context::PROTO_TLSV1_2);
        const Poco::Net::SecureServerSocket secure(context);
        return Poco::Net::ServerSocket(static_cast<const Poco::Net::Socket&>(secure));
    }

    const Options options_;
    ServerState state_;
    std::string url_;
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
    return impl_->Url();
}

}  // namespace Console
