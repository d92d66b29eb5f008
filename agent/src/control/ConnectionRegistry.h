#pragma once

#include <sdk/files/FileDescriptor.h>

#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>

namespace Agent {

/// Knows the open connections of the control API: slow ones are closed when new ones come, all of
/// them when the agent stops. Thread-safe.
class ConnectionRegistry {
  public:
    /// The registration of one connection, from its first byte to its end.
    class Connection {
      public:
        /// The caller keeps `socket`; this object duplicates it, so that it never shuts down a
        /// descriptor that was closed and reused.
        Connection(ConnectionRegistry& registry, int socket);
        ~Connection();
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;

        /// The request is complete: from now on the client waits for the agent.
        void MarkRequestRead();

      private:
        friend class ConnectionRegistry;
        void Shutdown();

        ConnectionRegistry& registry_;
        const SDK::FileDescriptor socket_;
        const std::chrono::steady_clock::time_point opened_;
        bool reading_ = true;
        std::list<Connection*>::iterator position_;
    };

    /// Shuts down connections that have been sending their request for longer than `limit`.
    void ShutdownSlow(std::chrono::milliseconds limit);

    /// Shuts down every connection, also later ones.
    void ShutdownAll();

    /// Blocks at most `limit` until the last connection has ended.
    void WaitUntilEmpty(std::chrono::milliseconds limit);

  private:
    std::mutex mutex_;
    std::condition_variable ended_;
    bool closed_ = false;
    std::list<Connection*> connections_;  ///< borrowed; guarded by mutex_, like their members
};

}  // namespace Agent
