#pragma once

#include <fleet/BrokerSettings.h>
#include <mosquitto.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Fleet {

/// A message to or from the broker. Payload and properties are bytes; what the broker sends is
/// hostile.
struct Message {
    std::string topic;
    std::string payload;
    bool retain = false;
    std::map<std::string, std::string> properties = {};  ///< user properties; keys are unique
    std::uint32_t expiry_s = 0;  ///< the broker drops it after so long; 0: never
};

/// One connection to an MQTT 5 broker (libmosquitto), without a thread of its own: everything
/// happens in Step. After a loss the owner makes a new object. Not thread-safe.
class BrokerClient {
  public:
    /// Runs in Step. May publish.
    using Receive = std::function<void(Message&& message)>;

    /// `client_id`: the broker ends an older connection of the same id; empty: it gives one.
    /// Messages with a payload beyond `max_payload` bytes are dropped and counted.
    BrokerClient(BrokerSettings settings, const std::string& client_id, std::size_t max_payload,
                 Receive receive);
    ~BrokerClient();
    BrokerClient(const BrokerClient&) = delete;
    BrokerClient& operator=(const BrokerClient&) = delete;

    /// The message that the broker publishes when this connection ends without Disconnect. Before
    /// Connect.
    bool SetWill(const Message& will);

    /// Begins to connect; Step goes on with it. Resolves the name, which may block; SDK::NameLookup
    /// asks before without blocking. False with `error`.
    bool Connect(std::string& error);

    /// The broker has accepted the connection.
    bool IsConnected() const { return connected_; }

    /// Waits at most `wait` for the broker or until `wake_fd` is readable (-1: none), and handles
    /// what there is. False with `error` when the connection is lost or refused.
    bool Step(std::chrono::milliseconds wait, int wake_fd, std::string& error);

    /// Of the connection, to wait for it with others; -1: none. A writable one may need a Step,
    /// too.
    int Socket() const;

    /// QoS 1. False when it cannot be sent. A subscription that the broker refuses ends the
    /// connection: Step says so.
    bool Subscribe(const std::string& filter);
    bool Publish(const Message& message);

    /// Messages that are published and not yet acknowledged by the broker.
    std::size_t Unacknowledged() const { return unacknowledged_; }

    /// Messages that the broker did not accept, such as for a topic that the user may not use.
    std::uint64_t Refused() const { return refused_; }

    /// Says good-bye, so that the broker does not publish the will.
    void Disconnect();

    /// Received messages that were too large or malformed.
    std::uint64_t Dropped() const { return dropped_; }

  private:
    struct Free {
        void operator()(mosquitto* handle) const;
    };

    static void OnConnect(mosquitto*, void* self, int code, int flags, const mosquitto_property*);
    static void OnDisconnect(mosquitto*, void* self, int code, const mosquitto_property*);
    static void OnPublish(mosquitto*, void* self, int id, int code, const mosquitto_property*);
    static void OnSubscribe(mosquitto*, void* self, int id, int count, const int* codes,
                            const mosquitto_property*);
    static void OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                          const mosquitto_property* properties);
    bool UseCredentials(std::string& error);
    void Take(const mosquitto_message& message, const mosquitto_property* properties);
    bool Handle(short ready);
    bool HasDecryptedBytes() const;
    bool HasUnreadBytes() const;

    const BrokerSettings settings_;
    const std::size_t max_payload_;
    const Receive receive_;
    std::unique_ptr<mosquitto, Free> handle_;
    bool connected_ = false;
    std::size_t unacknowledged_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t refused_ = 0;
    std::string refusal_;  ///< the broker's reason
};

}  // namespace Fleet
