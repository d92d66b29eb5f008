// Posts messages, and asks for the heartbeat's URL. Errors name the host only: the rest of a URL
// may be a secret.
#include <sdk/net/HttpExchange.h>
#include <sdk/text/Hmac.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/Printable.h>
#include <sdk/time/TimeUtils.h>

#include "notify/Formats.h"
#include "notify/Senders.h"

namespace Notify {

namespace {

constexpr int kOk = 200;
constexpr int kRedirect = 300;
constexpr int kClientError = 400;

SDK::HttpUtils::Limits Limits() {
    SDK::HttpUtils::Limits limits;
    limits.stall_timeout_ms = 10 * 1000;
    return limits;
}

/// Empty for an answer 2xx.
std::string Exchange(const SDK::HttpOrder& order) {
    const SDK::HttpAnswer answer = SDK::ExchangeHttp(order, Limits());
    const std::string origin = SDK::HttpOrigin(order.url);
    if (answer.status == 0) return origin + ": " + SDK::Printable(answer.error);
    if (answer.status >= kOk && answer.status < kRedirect) return "";
    std::string text = origin + " answered " + std::to_string(answer.status);
    if (answer.status >= kRedirect && answer.status < kClientError) {
        text += ", a redirect, which is not followed: give the final address";
    }
    return text;
}

class WebhookSender : public MessageSender {
  public:
    explicit WebhookSender(Settings::Webhook webhook) : webhook_(std::move(webhook)) {}

    std::string Send(const Message& message) override {
        SDK::HttpOrder order;
        order.method = "POST";
        order.url = webhook_.url;
        order.ca_file = webhook_.ca_file;
        order.body = SDK::JsonUtils::JsonToString(ToJson(message));
        order.headers = {{"Content-Type", "application/json"}, {"X-Sentrel-Id", message.id}};
        if (std::string error = Sign(order); !error.empty()) return error;
        return Exchange(order);
    }

  private:
    /// Reads the secret each time, so that a new one needs no start.
    std::string Sign(SDK::HttpOrder& order) const {
        if (webhook_.secret_file.empty()) return "";
        std::string error;
        const std::string secret = ReadSecret(webhook_.secret_file, error);
        if (secret.empty()) return error;
        const std::string time = std::to_string(SDK::TimeUtils::GetCurrentTimestampS());
        order.headers.emplace_back("X-Sentrel-Timestamp", time);
        order.headers.emplace_back("X-Sentrel-Signature",
                                   "sha256=" + SDK::HmacSha256(secret, time + "." + order.body));
        return "";
    }

    const Settings::Webhook webhook_;
};

}  // namespace

std::unique_ptr<MessageSender> MakeWebhookSender(const Settings::Webhook& webhook) {
    return std::make_unique<WebhookSender>(webhook);
}

std::string SendHeartbeat(const Settings::Heartbeat& heartbeat) {
    SDK::HttpOrder order;
    order.url = heartbeat.url;
    order.ca_file = heartbeat.ca_file;
    return Exchange(order);
}

}  // namespace Notify
