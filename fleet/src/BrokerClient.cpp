// Owns one connection of libmosquitto, which keeps no thread here: Step polls its socket. Its
// callbacks are C, so no exception may leave them.
#include <fleet/BrokerClient.h>
#include <mqtt_protocol.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sdk/files/PasswordFile.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace Fleet {

namespace {

constexpr int kQos = 1;
// What arrives while the collector stores a batch is the next batch.
constexpr int kReceiveMaximum = 2000;
constexpr int kSendMaximum = 200;  // the broker may want less; more wait in the client
constexpr int kMaxPacketsPerRead = 100;
constexpr int kFirstFailure = 0x80;  // reason codes of MQTT 5 from here on are failures
constexpr std::size_t kMaxProperties = 16;
constexpr std::size_t kMaxPropertyBytes = 1024;

struct FreeProperties {
    void operator()(mosquitto_property* list) const { mosquitto_property_free_all(&list); }
};
struct FreeText {
    void operator()(char* text) const { std::free(text); }  // NOLINT(*-no-malloc): the library's
};
using Properties = std::unique_ptr<mosquitto_property, FreeProperties>;
using Text = std::unique_ptr<char, FreeText>;

Properties MakeProperties(const Message& message) {
    mosquitto_property* list = nullptr;
    if (message.expiry_s > 0) {
        mosquitto_property_add_int32(&list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, message.expiry_s);
    }
    for (const auto& [name, value] : message.properties) {
        mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, name.c_str(),
                                           value.c_str());
    }
    return Properties(list);
}

/// False when there are too many, too long or repeated ones.
bool ReadProperties(const mosquitto_property* list, std::map<std::string, std::string>& to) {
    bool is_first = true;
    for (const mosquitto_property* at = list; at != nullptr; is_first = false) {
        char* name = nullptr;
        char* value = nullptr;
        at = mosquitto_property_read_string_pair(at, MQTT_PROP_USER_PROPERTY, &name, &value,
                                                 !is_first);
        const Text own_name(name);
        const Text own_value(value);
        if (at == nullptr) return true;
        if (name == nullptr || value == nullptr) return false;
        const std::string text(value);
        if (text.size() > kMaxPropertyBytes || to.size() >= kMaxProperties) return false;
        if (!to.emplace(name, text).second) return false;
    }
    return true;
}

const char* OrNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

void BrokerClient::Free::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
    mosquitto_lib_cleanup();
}

BrokerClient::BrokerClient(BrokerSettings settings, const std::string& client_id,
                           std::size_t max_payload, Receive receive)
    : settings_(std::move(settings)), max_payload_(max_payload), receive_(std::move(receive)) {
    mosquitto_lib_init();
    handle_.reset(mosquitto_new(OrNull(client_id), true, this));
    if (handle_ == nullptr) {
        mosquitto_lib_cleanup();
        return;
    }
    mosquitto_int_option(handle_.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle_.get(), MOSQ_OPT_RECEIVE_MAXIMUM, kReceiveMaximum);
    mosquitto_int_option(handle_.get(), MOSQ_OPT_SEND_MAXIMUM, kSendMaximum);
    mosquitto_int_option(handle_.get(), MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(handle_.get(), OnConnect);
    mosquitto_disconnect_v5_callback_set(handle_.get(), OnDisconnect);
    mosquitto_publish_v5_callback_set(handle_.get(), OnPublish);
    mosquitto_subscribe_v5_callback_set(handle_.get(), OnSubscribe);
    mosquitto_message_v5_callback_set(handle_.get(), OnMessage);
}

BrokerClient::~BrokerClient() = default;

bool BrokerClient::SetWill(const Message& will) {
    return handle_ != nullptr &&
           mosquitto_will_set(handle_.get(), will.topic.c_str(),
                              static_cast<int>(will.payload.size()), will.payload.data(), kQos,
                              will.retain) == MOSQ_ERR_SUCCESS;
}

bool BrokerClient::UseCredentials(std::string& error) {
    if (!settings_.ca_file.empty()) {
        const int code =
            mosquitto_tls_set(handle_.get(), settings_.ca_file.c_str(), nullptr,
                              OrNull(settings_.cert_file), OrNull(settings_.key_file), nullptr);
        if (code != MOSQ_ERR_SUCCESS) {
            error = "cannot use the certificates: " + std::string(mosquitto_strerror(code));
            return false;
        }
    }
    std::string password;
    if (!settings_.password_file.empty() &&
        !SDK::ReadPasswordFile(settings_.password_file, password, error)) {
        return false;
    }
    mosquitto_username_pw_set(handle_.get(), OrNull(settings_.user), OrNull(password));
    return true;
}

bool BrokerClient::Connect(std::string& error) {
    if (handle_ == nullptr) {
        error = "there is not enough memory";
        return false;
    }
    if (!UseCredentials(error)) return false;
    const int code = mosquitto_connect_bind_async(handle_.get(), settings_.host.c_str(),
                                                  settings_.port, settings_.keepalive_s, nullptr);
    if (code == MOSQ_ERR_SUCCESS) return true;
    error = mosquitto_strerror(code);
    return false;
}

bool BrokerClient::Step(std::chrono::milliseconds wait, int wake_fd, std::string& error) {
    error.clear();
    const int socket = mosquitto_socket(handle_.get());
    if (socket >= 0) {
        const short wanted =
            mosquitto_want_write(handle_.get()) ? static_cast<short>(POLLIN | POLLOUT) : POLLIN;
        std::array<pollfd, 2> sources{{{socket, wanted, 0}, {wake_fd, POLLIN, 0}}};
        ::poll(sources.data(), sources.size(), static_cast<int>(wait.count()));
        if (Handle(sources.front().revents) &&
            mosquitto_loop_misc(handle_.get()) == MOSQ_ERR_SUCCESS && refusal_.empty()) {
            return true;
        }
    }
    connected_ = false;
    error = refusal_.empty() ? "the connection to the broker is lost" : refusal_;
    return false;
}

int BrokerClient::Socket() const {
    return mosquitto_socket(handle_.get());
}

bool BrokerClient::Handle(short ready) {
    if ((ready & POLLOUT) != 0 &&
        mosquitto_loop_write(handle_.get(), kMaxPacketsPerRead) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    if ((ready & (POLLIN | POLLERR | POLLHUP)) == 0) return true;
    do {
        if (mosquitto_loop_read(handle_.get(), kMaxPacketsPerRead) != MOSQ_ERR_SUCCESS) {
            return false;
        }
    } while (HasDecryptedBytes());
    return (ready & (POLLERR | POLLHUP)) == 0 || HasUnreadBytes();
}

/// A socket that failed during the TLS handshake is reported by nothing else.
bool BrokerClient::HasUnreadBytes() const {
    int bytes = 0;
    return ::ioctl(mosquitto_socket(handle_.get()), FIONREAD, &bytes) == 0 && bytes > 0;
}

/// TLS may hold bytes that the socket no longer announces.
bool BrokerClient::HasDecryptedBytes() const {
    auto* const tls = static_cast<SSL*>(mosquitto_ssl_get(handle_.get()));
    return tls != nullptr && SSL_pending(tls) > 0;
}

bool BrokerClient::Subscribe(const std::string& filter) {
    return mosquitto_subscribe_v5(handle_.get(), nullptr, filter.c_str(), kQos, 0, nullptr) ==
           MOSQ_ERR_SUCCESS;
}

bool BrokerClient::Publish(const Message& message) {
    const Properties properties = MakeProperties(message);
    const int code = mosquitto_publish_v5(
        handle_.get(), nullptr, message.topic.c_str(), static_cast<int>(message.payload.size()),
        message.payload.data(), kQos, message.retain, properties.get());
    if (code != MOSQ_ERR_SUCCESS) return false;
    ++unacknowledged_;
    return true;
}

void BrokerClient::Disconnect() {
    if (handle_ != nullptr) mosquitto_disconnect_v5(handle_.get(), 0, nullptr);
}

void BrokerClient::OnConnect(mosquitto* /*handle*/, void* self, int code, int /*flags*/,
                             const mosquitto_property* /*properties*/) {
    auto& client = *static_cast<BrokerClient*>(self);
    client.connected_ = code == 0;
    if (code != 0)
        client.refusal_ = std::string("the broker refuses: ") + mosquitto_reason_string(code);
}

void BrokerClient::OnDisconnect(mosquitto* /*handle*/, void* self, int /*code*/,
                                const mosquitto_property* /*properties*/) {
    static_cast<BrokerClient*>(self)->connected_ = false;
}

void BrokerClient::OnPublish(mosquitto* /*handle*/, void* self, int /*id*/, int code,
                             const mosquitto_property* /*properties*/) {
    auto& client = *static_cast<BrokerClient*>(self);
    if (client.unacknowledged_ > 0) --client.unacknowledged_;
    if (code >= kFirstFailure) ++client.refused_;
}

void BrokerClient::OnSubscribe(mosquitto* /*handle*/, void* self, int /*id*/, int count,
                               const int* codes, const mosquitto_property* /*properties*/) {
    const bool is_refused =
        std::any_of(codes, codes + count, [](int code) { return code >= kFirstFailure; });
    if (is_refused)
        static_cast<BrokerClient*>(self)->refusal_ = "the broker refuses a subscription";
}

void BrokerClient::OnMessage(mosquitto* /*handle*/, void* self, const mosquitto_message* message,
                             const mosquitto_property* properties) {
    auto& client = *static_cast<BrokerClient*>(self);
    try {
        client.Take(*message, properties);
    } catch (...) {
        ++client.dropped_;
    }
}

void BrokerClient::Take(const mosquitto_message& message, const mosquitto_property* properties) {
    Message taken;
    const auto size = static_cast<std::size_t>(message.payloadlen);
    if (message.payloadlen < 0 || size > max_payload_ ||
        !ReadProperties(properties, taken.properties)) {
        ++dropped_;
        return;
    }
    taken.topic = message.topic;
    if (size > 0) taken.payload.assign(static_cast<const char*>(message.payload), size);
    taken.retain = message.retain;
    receive_(std::move(taken));
}

}  // namespace Fleet
