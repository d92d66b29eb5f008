// Owns the operator's requests until they are carried out, and what became of them. Any thread.
#include "baseline/OperatorRequests.h"

#include <baseline/ManifestEntry.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Engine {

namespace {

Json::Value Error(const std::string& sentence) {
    Json::Value answer(Json::objectValue);
    answer["error"] = sentence;
    return answer;
}

/// Absolute, with no component that leads elsewhere.
bool IsClean(const std::string& path) {
    const std::string whole = path + "/";
    return !path.empty() && path.front() == '/' && whole.find("/../") == std::string::npos &&
           whole.find("/./") == std::string::npos;
}

bool IsUnder(const char* state, const char* other) {
    return std::string_view(state) == other;
}

constexpr std::array<std::pair<const char*, OperatorRequest::Action>, 3> kActions = {
    {{"accept", OperatorRequest::Action::kAccept},
     {"restore", OperatorRequest::Action::kRestore},
     {"rollback", OperatorRequest::Action::kRollback}}};

/// Why the request cannot be understood, as a sentence; else empty.
std::string Parse(const Json::Value& request, OperatorRequest& parsed) {
    const std::string action = SDK::JsonUtils::GetStringValue(request, "action", "");
    const auto* const known = std::find_if(kActions.begin(), kActions.end(),
                                           [&](const auto& one) { return action == one.first; });
    if (known == kActions.end()) return "The agent does not know the action " + action + ".";
    parsed.action = known->second;
    parsed.all = SDK::JsonUtils::GetBoolValue(request, "all", false);
    parsed.is_dry_run = SDK::JsonUtils::GetBoolValue(request, "dry_run", false);
    parsed.generation = request["generation"].isUInt() ? request["generation"].asUInt() : 0;
    parsed.user = request["uid"].isUInt() ? request["uid"].asUInt() : static_cast<uid_t>(-1);
    parsed.process = request["pid"].isInt() ? request["pid"].asInt() : 0;
    parsed.signer = SDK::JsonUtils::GetStringValue(request, "signer", "");
    for (const Json::Value& path : request["paths"]) {
        std::string& bytes = parsed.paths.emplace_back();
        if (!path.isString() || !SDK::PercentDecode(path.asString(), bytes) || !IsClean(bytes)) {
            return "A path must be absolute and without \".\" and \"..\".";
        }
    }
    return "";
}

}  // namespace

std::vector<std::string> OperatorRequest::PartsOf(const SentrelDirRule& rule) const {
    if (all) return {""};
    std::vector<std::string> parts;
    const std::string root = SDK::PathUtils::WithoutTrailingSlash(rule.real_path);
    for (const std::string& one : paths) {
        const std::string path = SDK::PathUtils::WithoutTrailingSlash(one);
        if (Baseline::IsWithin(root, path) || path == "/") {
            parts.emplace_back();
        } else if (!rule.is_file && Baseline::IsWithin(path, root)) {
            parts.push_back(path.substr(root == "/" ? 1 : root.size() + 1));
        }
    }
    return parts;
}

std::string OperatorRequest::By() const {
    const std::string by = "user " + std::to_string(user) + ", process " + std::to_string(process);
    return signer.empty() ? by : by + ", signed by " + signer;
}

Json::Value OperatorRequests::Submit(const Json::Value& request,
                                     std::shared_ptr<const SDK::SigningKey> key) {
    OperatorRequest next;
    const std::string problem = Parse(request, next);
    if (!problem.empty()) return Error(problem);
    next.key = std::move(key);
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto waiting = std::count_if(known_.begin(), known_.end(), [](const Known& known) {
        return IsUnder(known.state, "waiting");
    });
    if (static_cast<std::size_t>(waiting) >= kMostWaiting) {
        return Error("Too many requests wait; try again.");
    }
    next.id = ++last_id_;
    known_.emplace_back().request = std::move(next);
    if (known_.size() > kRemembered) known_.pop_front();
    Json::Value answer(Json::objectValue);
    answer["id"] = static_cast<Json::UInt64>(last_id_);
    return answer;
}

Json::Value OperatorRequests::Progress(const Json::Value& request) const {
    const std::uint64_t id = request["id"].isUInt64() ? request["id"].asUInt64() : 0;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = std::find_if(known_.begin(), known_.end(),
                                    [&](const Known& one) { return one.request.id == id; });
    if (known == known_.end()) return Error("There is no such request.");
    Json::Value answer(Json::objectValue);
    answer["state"] = known->state;
    answer["message"] = known->result.message;
    answer["objects"] = static_cast<Json::UInt64>(known->result.objects);
    answer["generation"] = known->result.generation;
    return answer;
}

std::optional<OperatorRequest> OperatorRequests::Take(OperatorRequest::Action action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto next = std::find_if(known_.begin(), known_.end(), [&](const Known& one) {
        return one.request.action == action && IsUnder(one.state, "waiting");
    });
    if (next == known_.end()) return std::nullopt;
    next->state = "running";
    return next->request;
}

OperatorRequests::Known* OperatorRequests::Find(std::uint64_t id) {
    const auto known = std::find_if(known_.begin(), known_.end(),
                                    [&](const Known& one) { return one.request.id == id; });
    return known == known_.end() ? nullptr : &*known;
}

void OperatorRequests::End(std::uint64_t id, const Result& result) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Known* const known = Find(id);
    if (known == nullptr) return;
    const unsigned int generation = known->result.generation;
    known->state = result.is_done ? "done" : "failed";
    known->result = result;
    known->result.message = known->request.so_far + result.message;
    if (result.generation == 0) known->result.generation = generation;
    known->request.key.reset();
}

void OperatorRequests::GoOnWithRestore(std::uint64_t id, unsigned int generation,
                                       const std::string& so_far) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Known* const known = Find(id);
    if (known == nullptr) return;
    known->request.action = OperatorRequest::Action::kRestore;
    known->request.so_far = so_far + " ";
    known->request.key.reset();
    known->result.generation = generation;
    known->state = "waiting";
}

void OperatorRequests::FailAll(const std::string& message) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (Known& known : known_) {
        if (!IsUnder(known.state, "waiting") && !IsUnder(known.state, "running")) continue;
        known.state = "failed";
        known.result.message = known.request.so_far + message;
        known.request.key.reset();
    }
}

}  // namespace Engine
