#include "control/ConnectionRegistry.h"

#include <fcntl.h>
#include <sys/socket.h>

namespace Agent {

ConnectionRegistry::Place::Place(ConnectionRegistry& registry, int socket)
    : registry_(registry),
      socket_(::fcntl(socket, F_DUPFD_CLOEXEC, 0)),
      opened_(std::chrono::steady_clock::now()) {
    std::lock_guard<std::mutex> lock(registry_.mutex_);
    position_ = registry_.places_.insert(registry_.places_.end(), this);
    if (registry_.closed_) Cut();
}

ConnectionRegistry::Place::~Place() {
    std::lock_guard<std::mutex> lock(registry_.mutex_);
    registry_.places_.erase(position_);
    registry_.ended_.notify_all();
}

void ConnectionRegistry::Place::RequestRead() {
    std::lock_guard<std::mutex> lock(registry_.mutex_);
    reading_ = false;
}

void ConnectionRegistry::Place::Cut() {
    ::shutdown(socket_.Get(), SHUT_RDWR);
}

void ConnectionRegistry::CutSlow(std::chrono::milliseconds limit) {
    const auto oldest = std::chrono::steady_clock::now() - limit;
    std::lock_guard<std::mutex> lock(mutex_);
    for (Place* place : places_) {
        if (place->reading_ && place->opened_ < oldest) place->Cut();
    }
}

void ConnectionRegistry::CutAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    for (Place* place : places_) place->Cut();
}

void ConnectionRegistry::WaitUntilEmpty(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    ended_.wait_for(lock, limit, [this] { return places_.empty(); });
}

}  // namespace Agent
