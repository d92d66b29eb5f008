// Owns the shielded directories. Must not decide which (the agent does). Service's thread.
#include "shield/ShieldRoom.h"

#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>

#include "base/Places.h"

namespace Sentry {

using SDK::JsonUtils;

namespace {

constexpr std::uint64_t kKilobyte = 1024;

/// Each open that waits holds a descriptor, and where none is left the kernel refuses opens.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

void ShieldRoom::Start(const Json::Value& settings, pid_t agent, Tell tell) {
    RaiseDescriptorLimit();
    const int answer_ms = JsonUtils::GetIntValue(settings, "answer_ms", state_.answer_ms);
    state_.answer_ms = answer_ms;
    settings_.limit = std::chrono::milliseconds(answer_ms);
    settings_.probe_file = ProbeFile();
    settings_.watchdog = ::getppid();
    settings_.judge.agent = agent;
    settings_.judge.most_bytes =
        static_cast<std::uint64_t>(JsonUtils::GetIntValue(settings, "heal_kb", 0)) * kKilobyte;
    settings_.judge.most_percent =
        static_cast<unsigned int>(JsonUtils::GetIntValue(settings, "most_percent", 0));
    tell_ = std::move(tell);
}

Json::Value ShieldRoom::Answer(const std::string& operation, const Json::Value& request) {
    Json::Value answer(Json::objectValue);
    if (operation != "rules") {
        answer["error"] = "There is no operation shield." + operation + ".";
        return answer;
    }
    if (!request["serial"].isUInt64() || !request["rules"].isArray()) {
        answer["error"] = "The rules cannot be read.";
        return answer;
    }
    if (request["serial"].asUInt64() >= serial_) {
        serial_ = request["serial"].asUInt64();
        TakeRules(request["rules"]);
    }
    return Status();
}

void ShieldRoom::TakeRules(const Json::Value& rules) {
    std::map<std::string, Json::Value> wanted;
    std::map<std::string, std::vector<std::string>> held;
    for (Json::Value rule : rules) {
        const std::string path = JsonUtils::GetStringValue(rule, "path", "");
        held[path] = ShieldRule::ReadHeld(rule);
        rule.removeMember("held");
        wanted[path] = rule;
    }
    for (auto one = shielded_.begin(); one != shielded_.end();) {
        const auto same = wanted.find(one->first);
        const bool is_kept = same != wanted.end() && same->second == one->second.wanted;
        one = is_kept ? std::next(one) : shielded_.erase(one);
    }
    for (const auto& [path, rule] : wanted) {
        const auto known = shielded_.find(path);
        if (known == shielded_.end()) {
            shielded_[path] = Begin(rule, held[path]);
        } else if (known->second.guard != nullptr) {
            known->second.guard->SetHeld(held[path]);
        }
    }
    bool is_armed = false;
    for (const auto& [path, one] : shielded_) is_armed = is_armed || one.guard != nullptr;
    state_.is_armed = is_armed;
}

ShieldRoom::Shielded ShieldRoom::Begin(const Json::Value& wanted,
                                       std::vector<std::string> held) const {
    Shielded shielded;
    shielded.wanted = wanted;
    const std::shared_ptr<const ShieldRule> rule = ShieldRule::Read(
        wanted, SDK::PathUtils::GetInstallationPath() + "data/baseline", shielded.problem);
    if (rule == nullptr) return shielded;
    const std::string name = JsonUtils::GetStringValue(wanted, "path", "");
    const auto healed = [tell = tell_, untold = untold_, name](const std::string& path,
                                                               int content) {
        Json::Value event(Json::objectValue);
        event["event"] = "shield.healed";
        event["rule"] = name;
        event["path"] = SDK::PercentEncode(path);
        if (!tell(event, content)) ++*untold;
    };
    const auto trouble = [tell = tell_, untold = untold_, name](const std::string& what) {
        Json::Value event(Json::objectValue);
        event["event"] = "shield.trouble";
        event["rule"] = name;
        event["what"] = what;
        if (!tell(event, -1)) ++*untold;
    };
    Guard::Settings settings = settings_;
    settings.judge.held = std::move(held);
    auto guard = std::make_unique<Guard>(rule, settings, healed, trouble);
    shielded.problem = guard->Problem();
    if (shielded.problem.empty()) shielded.guard = std::move(guard);
    return shielded;
}

Json::Value ShieldRoom::ToJson(const std::string& path, const Shielded& shielded) const {
    Json::Value one = shielded.guard ? shielded.guard->Status() : Json::Value(Json::objectValue);
    one["path"] = path;
    one["problem"] = shielded.problem;
    return one;
}

Json::Value ShieldRoom::Status() const {
    Json::Value status(Json::objectValue);
    std::string problem;
    for (const auto& [path, one] : shielded_) {
        status["paths"].append(ToJson(path, one));
        if (!one.problem.empty()) problem = one.problem;
    }
    status["serial"] = serial_;
    status["untold"] = static_cast<Json::UInt64>(*untold_);
    status["state"] = shielded_.empty() ? "off" : problem.empty() ? "running" : "refused";
    status["why"] = problem;
    return status;
}

void ShieldRoom::Stop() {
    state_.is_armed = false;
    shielded_.clear();
    serial_ = 0;
}

}  // namespace Sentry
