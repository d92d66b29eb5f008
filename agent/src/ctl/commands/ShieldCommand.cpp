// Shows and sets what is shielded. It must not speak with the sentry: the agent does.
#include "ctl/commands/ShieldCommand.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sdk/text/StrUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/deploys/DeploySteps.h"
#include "ctl/deploy/DeployClient.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

std::string PathOf(const Json::Value& one) {
    std::string path;
    const bool is_read = SDK::PercentDecode(SDK::JsonUtils::GetStringValue(one, "path", ""), path);
    return is_read ? Printable(path) : "?";
}

/// "heal: in force, 12 healed, 3 refused" or "heal, but off: a pause is open".
std::string Describe(const Json::Value& one) {
    const std::string mode = Text(one, "mode");
    const std::string in_force = Text(one, "in_force");
    if (mode == "off" && in_force == "off") return "off";
    std::string text = mode;
    std::string why = Text(one, "why");
    if (why.empty()) why = Text(one, "problem");
    if (mode != in_force) text += ", but " + in_force + (why.empty() ? "" : ": " + why);
    if (in_force == "off") return text;
    if (!Flag(one, "complete")) text += ", begins";
    for (const char* count : {"healed", "refused", "passed", "late"}) {
        text += ", " + std::to_string(Number(one, count)) + " " + count;
    }
    return text;
}

void Print(const Json::Value& all) {
    const std::string state = Text(all["sentry"], "state");
    const std::string why = Text(all["sentry"], "why");
    std::cout << "sentry: " << state << (why.empty() ? "" : ": " + why) << "\n";
    for (const Json::Value& one : all["paths"]) {
        std::cout << PathOf(one) << "  " << Describe(one) << "\n";
    }
    const long long untold = Number(all["sentry"], "untold");
    if (untold > 0) {
        std::cout << Counted(untold, "event") << " came too fast to have an alarm.\n";
    }
    if (state == "off") {
        std::cout << "Nothing is shielded: set \"sentry\": {\"enabled\": true} in "
                     "conf/agent.json and restart the agent.\n";
    }
    std::cout << std::flush;
}

}  // namespace

int ShieldPath(const ControlClient& control, const ShieldOptions& options) {
    const DeployClient client(control);
    Json::Value request(Json::objectValue);
    if (!options.path.empty()) request = OperationOn(options.path, std::chrono::seconds(0), "");
    request["mode"] = options.mode;
    const Answer answer = client.Ask("shield", options.path.empty() ? "list" : "set", request);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        const int code = PrintFailure(answer);
        return answer.kind == Answer::Kind::kAnswered ? kExitRejected : code;
    }
    if (!options.json) {
        Print(answer.body);
        return kExitOk;
    }
    for (const Json::Value& one : answer.body["paths"]) {
        std::cout << SDK::JsonUtils::JsonToString(one) << "\n";
    }
    std::cout << std::flush;
    return kExitOk;
}

}  // namespace Ctl
