// Owns the list of open connections and a duplicate of each socket. Must not read or answer
// requests (ControlConnection does). Thread-safe.
#include "control/ConnectionRegistry.h"

#include <fcntl.h>
#include <sys/socket.h>

namespace Agent {

ConnectionRegistry::Connection::Connection(ConnectionRegistry& registry, int socket)
    : registry_(registry),
      socket_(::fcntl(socket, F_DUPFD_CLOEXEC, 0)),
      opened_(std::chrono::steady_clock::now()) {
    std::lock_guard<std::mutex> lock(registry_.mutex_);
    position_ = registry_.connections_.insert(registry_.connections_.end(), this);
    if (registry_.closed_) Shutdown();
}

ConnectionRegistry::Connection::~Connection() {
    std::lock_guard<std::mutex> lock(registry_.mutex_);
    registry_.connections_.erase(position_);
    registry_.ended_.notify_all();
}

void ConnectionRegistry::Connection::MarkRequestRead() {
    std::lock_guard<std::mutex> lock(registry_.mutex_);
    reading_ = false;
}

void ConnectionRegistry::Connection::Shutdown() {
    ::shutdown(socket_.Get(), SHUT_RDWR);
}

void ConnectionRegistry::ShutdownSlow(std::chrono::milliseconds limit) {
    const auto oldest = std::chrono::steady_clock::now() - limit;
    std::lock_guard<std::mutex> lock(mutex_);
    for (Connection* connection : connections_) {
        if (connection->reading_ && connection->opened_ < oldest) connection->Shutdown();
    }
}

void ConnectionRegistry::ShutdownAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    for (Connection* connection : connections_) connection->Shutdown();
}

void ConnectionRegistry::WaitUntilEmpty(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    ended_.wait_for(lock, limit, [this] { return connections_.empty(); });
}

}  // namespace Agent
