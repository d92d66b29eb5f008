#pragma once

#include <json/value.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace Sentry {

/// Where the sentry listens: `run/sentry.sock` of the installation.
std::string SocketPath();

/// One message: a JSON object, and perhaps an open file. A request is {"id","op",…}, its answer
/// {"id","answer"}, and what the sentry tells by itself {"event",…}. The first part of "op" and
/// "event" names the room: "shield.rules", "who.lookup".
struct Message {
    Json::Value body;
    SDK::FileDescriptor file = {};
};

/// A connection between the agent and the sentry: a Unix socket of sequenced packets, one message a
/// packet. A packet is whole or not there, so neither side needs framing, and a slow peer blocks
/// nobody. Send is thread-safe; Receive is for one thread.
class Channel {
  public:
    /// A larger message is not sent (EMSGSIZE).
    static constexpr std::size_t kMostBytes = 128 * 1024;

    enum class Received { kMessage, kNothing, kClosed };

    explicit Channel(SDK::FileDescriptor socket);

    /// Connects to the socket at `path`. Null on failure (errno).
    static std::unique_ptr<Channel> Connect(const std::string& path);

    /// False (errno) when the message was not sent: EAGAIN when the peer does not keep up. Never
    /// blocks. `file` is duplicated for the peer; -1: none.
    bool Send(const Json::Value& body, int file = -1);

    /// Waits for the next message, `limit` at most. What is no JSON object counts as kClosed.
    Received Receive(Message& message, std::chrono::milliseconds limit);

    /// Ends the connection: Receive of either side returns kClosed.
    void Close();

    pid_t PeerProcess() const { return process_; }
    uid_t PeerUser() const { return user_; }
    int Descriptor() const { return socket_.Get(); }

  private:
    const SDK::FileDescriptor socket_;
    std::mutex sending_;
    std::string buffer_;  ///< of Receive
    pid_t process_ = 0;
    uid_t user_ = static_cast<uid_t>(-1);
};

}  // namespace Sentry
