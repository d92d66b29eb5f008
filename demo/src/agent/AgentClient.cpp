#include "agent/AgentClient.h"

#include "sdk/text/JsonUtils.h"

namespace Demo {
namespace {

constexpr int kOk = 200;

}  // namespace

bool AgentClient::Get(const std::string& address, std::chrono::milliseconds timeout,
                      Json::Value& answer, std::string& error) const {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout).count() + 1;
    Ctl::Answer reply = control_.Send("GET", address, "", static_cast<int>(seconds));
    if (reply.kind != Ctl::Answer::Kind::kAnswered) {
        error = reply.problem;
        return false;
    }
    answer = std::move(reply.body);
    if (reply.status == kOk) return true;
    error = SDK::JsonUtils::GetStringValue(answer, "error", "the agent gave no reason");
    return false;
}

}  // namespace Demo
