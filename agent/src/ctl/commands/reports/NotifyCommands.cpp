#include "ctl/commands/reports/NotifyCommands.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

/// A test of all channels may wait for each receiver.
constexpr int kTestTimeoutS = 300;

std::string State(const Json::Value& channel) {
    if (!Flag(channel, "working")) return Coloured("failing", Colour::kRed);
    return Flag(channel, "limited") ? Coloured("limited", Colour::kYellow)
                                    : Coloured("works", Colour::kGreen);
}

std::string FormatChannel(const Json::Value& channel, long long last_seq, long long now_ms) {
    const std::string to = Text(channel, "to");
    std::string text =
        SDK::StrUtils::Format("%-10s ", Text(channel, "channel").c_str()) + State(channel);
    if (!to.empty()) text += "  " + to;
    text += "\n           " + std::to_string(Number(channel, "deliveries")) + " sent, last " +
            When(Number(channel, "last_success"), now_ms);
    if (channel.isMember("acked_seq")) {
        text += "; mark " + std::to_string(Number(channel, "acked_seq")) + " of " +
                std::to_string(std::max(last_seq, Number(channel, "acked_seq")));
    }
    if (Number(channel, "lost_reports") > 0) {
        text +=
            "; " + std::to_string(Number(channel, "lost_reports")) + " reports were dropped unsent";
    }
    text += "\n";
    const std::string error = Text(channel, "last_error");
    if (error.empty()) return text;
    return text + "           last failure " + When(Number(channel, "last_failure"), now_ms) +
           " (" + std::to_string(Number(channel, "failures")) + " since the start): " + error +
           "\n";
}

std::string Result(const Json::Value& result) {
    const std::string name = SDK::StrUtils::Format("%-10s ", Text(result, "channel").c_str());
    if (Flag(result, "sent")) return name + Coloured("sent", Colour::kGreen) + "\n";
    return name + Coloured("not sent", Colour::kRed) + ": " + Text(result, "error") + "\n";
}

bool AreAll(const Json::Value& list, const char* flag) {
    return std::all_of(list.begin(), list.end(),
                       [flag](const Json::Value& one) { return Flag(one, flag); });
}

}  // namespace

std::string FormatChannels(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& channel : status["notifications"]) {
        text += FormatChannel(channel, Number(status["reports"], "last_seq"), now_ms);
    }
    return text;
}

int ShowChannels(const ControlClient& client, bool json) {
    const Answer answer = client.Get("/v1/status");
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    const Json::Value& channels = answer.body["notifications"];
    if (json) {
        for (const Json::Value& channel : channels) {
            std::cout << SDK::JsonUtils::JsonToString(channel) << "\n";
        }
    } else {
        std::cout << FormatChannels(answer.body, SDK::TimeUtils::GetCurrentTimestampS() * 1000);
    }
    return AreAll(channels, "working") ? kExitOk : kExitFailed;
}

int TestChannels(const ControlClient& client, const std::string& channel) {
    Json::Value request(Json::objectValue);
    request["channel"] = channel;
    const Answer answer = client.Send("POST", "/v1/notify/test",
                                      SDK::JsonUtils::JsonToString(request), kTestTimeoutS);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    for (const Json::Value& result : answer.body["results"]) std::cout << Result(result);
    return AreAll(answer.body["results"], "sent") ? kExitOk : kExitFailed;
}

}  // namespace Ctl
