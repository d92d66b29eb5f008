#include "agent/Readiness.h"

#include <poll.h>

#include <chrono>
#include <functional>

#include "agent/AgentClient.h"
#include "sdk/text/JsonUtils.h"

namespace Demo {
namespace {

constexpr int kPollMs = 50;
constexpr std::chrono::milliseconds kAnswerTimeout{10000};

/// Calls `done` until it is true or the deadline has passed.
bool Wait(int deadline_ms, const std::function<bool()>& done) {
    const auto start = std::chrono::steady_clock::now();
    while (!done()) {
        const auto passed = std::chrono::steady_clock::now() - start;
        if (deadline_ms > 0 && passed > std::chrono::milliseconds(deadline_ms)) return false;
        ::poll(nullptr, 0, kPollMs);
    }
    return true;
}

/// The paths that are not ready yet, or a line on each path when all are ready.
std::string Describe(const Json::Value& status, std::size_t paths, bool& ready) {
    std::string text;
    std::string waiting;
    const Json::Value& protected_paths = status["protected_paths"];
    for (const Json::Value& path : protected_paths) {
        const std::string name = SDK::JsonUtils::GetStringValue(path, "path", "?");
        const std::string state = SDK::JsonUtils::GetStringValue(path, "state", "unknown");
        const std::string failure = SDK::JsonUtils::GetStringValue(path, "last_failure", "");
        if (!failure.empty()) text += "    " + name + ": " + failure + "\n";
        if (state == "ready" || state == "degraded") {
            text += "    " + name + ": watched";
            if (SDK::JsonUtils::GetStringValue(path, "kind", "") == "tree") {
                text += ", " + path["watched_directories"].asString() + " directories";
            }
            text += state == "ready" ? "\n" : ", but not all there are\n";
        } else {
            waiting += "    " + name + ": " + state + "\n";
        }
    }
    if (protected_paths.size() < paths) waiting += "    the policy is not in force yet\n";
    if (status["backup"]["local_pending"].asBool()) waiting += "    backup copy: in the making\n";
    ready = waiting.empty();
    return ready ? text : waiting;
}

}  // namespace

bool WaitForAnswer(const ReadinessRequest& request, std::ostream& out) {
    const AgentClient client(request.socket);
    Json::Value status;
    std::string error;
    if (Wait(request.deadline_ms,
             [&] { return client.Get("/v1/status", kAnswerTimeout, status, error); })) {
        return true;
    }
    out << "error: " << error << std::endl;
    return false;
}

bool WaitUntilReady(const ReadinessRequest& request, std::ostream& out) {
    const AgentClient client(request.socket);
    std::string said;
    return Wait(request.deadline_ms, [&] {
        Json::Value status;
        std::string now;
        bool ready = false;
        if (client.Get("/v1/status", kAnswerTimeout, status, now)) {
            now = Describe(status, request.paths, ready);
        }
        if (now != said) out << now << std::flush;
        said = now;
        return ready;
    });
}

}  // namespace Demo
