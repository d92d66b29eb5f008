// Pauses of single paths. It must not accept or restore anything itself: the agent does.
#include <sdk/text/JsonUtils.h>

#include <iostream>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/commands/deploys/DeployCommands.h"
#include "ctl/commands/deploys/DeploySteps.h"
#include "ctl/output/Question.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr char kUndecided[] =
    "The pause goes on: give --accept to approve these changes, or --restore to undo them.";

int RefusedByAgent(const Answer& answer) {
    const int code = PrintFailure(answer);
    return answer.kind == Answer::Kind::kAnswered ? kExitRejected : code;
}

/// "accept", "restore" or empty: no decision.
std::string Decision(const PauseOptions& options) {
    if (options.accept) return "accept";
    if (options.restore) return "restore";
    if (!IsAtTerminal()) return "";
    const std::string line = AskLine("Type \"accept\" to approve this, \"restore\" to undo it:");
    return line == "accept" || line == "restore" ? line : "";
}

/// The protected paths that hold `path`.
std::vector<std::string> RootsOf(const std::string& path) {
    const ApprovedStates states;
    std::vector<std::string> roots;
    for (const ApprovedPart& part : states.Holding(states.Resolve(path))) {
        roots.push_back(LiveRoot(part.generation.manifest->Info()));
    }
    return roots;
}

}  // namespace

int PauseProtection(const ControlClient& control, const PauseOptions& options) {
    const Answer answer = DeployClient(control).Ask(
        "pause", "begin", OperationOn(options.path, options.limit, options.reason));
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        return RefusedByAgent(answer);
    }
    std::cout << "Until " << ShortTime(answer.body["until"].asInt64() * 1000, 0)
              << " nothing is undone there. Every change has its alarm and waits for morvanectl "
                 "resume."
              << std::endl;
    return kExitOk;
}

int ResumeProtection(const ControlClient& control, const PauseOptions& options) {
    const DeployClient client(control);
    Json::Value request = OperationOn(options.path, options.limit, "");
    Answer answer = client.Ask("pause", "show", request);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        return RefusedByAgent(answer);
    }
    VerifyOptions what;
    what.paths = RootsOf(options.path);
    const int compared = Verify(what);
    if (compared != kExitOk && compared != kExitDifferences) return kExitFailed;
    if (compared == kExitDifferences) {
        DecisionOptions decision;
        decision.action = Decision(options);
        decision.paths = what.paths;
        if (decision.action == "accept") decision.key = options.key;
        if (decision.action.empty()) return Refuse(kUndecided, kExitDifferences);
        const int decided = Decide(control, decision);
        if (decided != kExitOk) return decided;
    }
    request["equal"] = compared == kExitOk;
    answer = client.Ask("pause", "end", request);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        return RefusedByAgent(answer);
    }
    std::cout << "The pause has ended." << std::endl;
    return kExitOk;
}

}  // namespace Ctl
