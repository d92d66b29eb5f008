#pragma once

#include <sdk/files/FileDescriptor.h>

#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>

namespace Agent {

/// Knows the open connections of the control API, so that one that dawdles over its request can be
/// cut when others come, and all of them when the agent stops. Any thread.
class ConnectionRegistry {
  public:
    /// One connection's place in the registry, from its first byte to its end.
    class Place {
      public:
        /// `socket` stays the caller's; the place has a duplicate, so that it never cuts a
        /// descriptor that was closed and given to something else.
        Place(ConnectionRegistry& registry, int socket);
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /// The request is here in full: from now on the client waits for us, not we for it.
        void RequestRead();

      private:
        friend class ConnectionRegistry;
        void Cut();

        ConnectionRegistry& registry_;
        const SDK::FileDescriptor socket_;
        const std::chrono::steady_clock::time_point opened_;
        bool reading_ = true;
        std::list<Place*>::iterator position_;
    };

    /// Cuts the connections that have been sending their request for longer than `limit`.
    void CutSlow(std::chrono::milliseconds limit);

    /// Cuts every connection, later ones too.
    void CutAll();

    /// Waits at most `limit` for the last connection to end.
    void WaitUntilEmpty(std::chrono::milliseconds limit);

  private:
    std::mutex mutex_;
    std::condition_variable ended_;
    bool closed_ = false;
    std::list<Place*> places_;  ///< borrowed; guarded by mutex_, as are the places' members
};

}  // namespace Agent
