// Owns the listening socket and the agent's connection. Must not know what the rooms do.
#include "service/Service.h"

#include <poll.h>
#include <sdk/text/JsonUtils.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Sentry {

using SDK::JsonUtils;

namespace {

constexpr mode_t kPrivateMask = 0177;
constexpr int kSendBytes = 4 * 1024 * 1024;  // events of an attack on many pages

Json::Value Error(const std::string& text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

}  // namespace

Service::Service(const std::string& socket, std::vector<std::unique_ptr<Room>> rooms, bool is_child)
    : path_(socket), is_child_(is_child), rooms_(std::move(rooms)) {
    Listen();
}

Service::~Service() {
    Disconnect();
    if (listener_.IsOpen()) ::unlink(path_.c_str());
}

void Service::Listen() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(address.sun_path)) {
        problem_ = "the path of the socket is too long: " + path_;
        return;
    }
    path_.copy(address.sun_path, path_.size());
    ::unlink(path_.c_str());
    SDK::FileDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t mask = ::umask(kPrivateMask);
    const bool is_bound =
        socket.IsOpen() &&
        ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    const int error = errno;
    ::umask(mask);
    if (!is_bound || ::listen(socket.Get(), 1) != 0) {
        problem_ = "cannot listen at " + path_ + ": " + std::strerror(is_bound ? errno : error);
        return;
    }
    listener_ = std::move(socket);
}

void Service::Run(int stop) {
    while (!is_child_ || !was_connected_ || agent_ != nullptr) {
        pollfd ready[] = {{stop, POLLIN, 0},
                          {listener_.Get(), POLLIN, 0},
                          {agent_ ? agent_->Descriptor() : -1, POLLIN, 0}};
        if (::poll(ready, std::size(ready), -1) < 0 && errno != EINTR) return;
        if (ready[0].revents != 0) return;
        if (ready[2].revents != 0) Read();
        if (ready[1].revents != 0) Accept();
    }
}

void Service::Accept() {
    SDK::FileDescriptor socket(
        ::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.IsOpen()) return;
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDBUF, &kSendBytes, sizeof(kSendBytes));
    auto channel = std::make_shared<Channel>(std::move(socket));
    if (channel->PeerUser() != 0 && channel->PeerUser() != ::geteuid()) return;
    Disconnect();
    agent_ = std::move(channel);
    was_connected_ = true;
}

void Service::Read() {
    Message message;
    switch (agent_->Receive(message, std::chrono::milliseconds(0))) {
        case Channel::Received::kMessage:
            return Handle(message.body);
        case Channel::Received::kClosed:
            return Disconnect();
        case Channel::Received::kNothing:
            return;
    }
}

void Service::Handle(const Json::Value& request) {
    Json::Value reply(Json::objectValue);
    reply["id"] = request["id"];
    reply["answer"] = Answer(request);
    // An agent that does not read is of no use: it connects anew.
    if (!agent_->Send(reply)) Disconnect();
}

Json::Value Service::Answer(const Json::Value& request) {
    const std::string operation = JsonUtils::GetStringValue(request, "op", "");
    if (operation == "hello") return Hello(request);
    if (operation == "status") return Status();
    const std::size_t dot = operation.find('.');
    for (const auto& room : rooms_) {
        if (!is_greeted_ || dot == std::string::npos) break;
        if (operation.compare(0, dot, room->Name()) != 0) continue;
        return room->Answer(operation.substr(dot + 1), request);
    }
    return Error("There is no operation " + operation + ".");
}

Json::Value Service::Hello(const Json::Value& request) {
    const std::shared_ptr<Channel> channel = agent_;
    if (!is_greeted_) {
        for (const auto& room : rooms_) {
            room->Start(request["settings"], channel->PeerProcess(),
                        [channel](const Json::Value& event, int file) {
                            return channel->Send(event, file);
                        });
        }
    }
    is_greeted_ = true;
    return Status();
}

Json::Value Service::Status() const {
    Json::Value answer(Json::objectValue);
    answer["process"] = ::getpid();
    for (const auto& room : rooms_) answer[room->Name()] = room->Status();
    return answer;
}

void Service::Disconnect() {
    if (!agent_) return;
    agent_->Close();
    if (is_greeted_) {
        for (const auto& room : rooms_) room->Stop();
    }
    is_greeted_ = false;
    agent_.reset();
}

}  // namespace Sentry
