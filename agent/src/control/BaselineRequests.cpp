// Owns the form of the requests. Must not know the baselines (a module answers the queries) or
// judge the paths beyond their form. Runs on the control API's threads.
#include "control/BaselineRequests.h"

#include <Poco/NumberParser.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <algorithm>
#include <cstring>

namespace Agent {

using SDK::JsonUtils;

namespace {

constexpr char kForm[] =
    "The request is an object with \"paths\" (an array of absolute paths, percent-encoded), or "
    "\"all\" (true), and of a rollback \"generation\" (a number from 1 on).";

/// Overwrites the text of a key.
void Clear(Json::Value& text) {
    char const* begin = nullptr;
    char const* end = nullptr;
    if (text.getString(&begin, &end)) {
        ::explicit_bzero(const_cast<char*>(begin), static_cast<std::size_t>(end - begin));
    }
}

bool IsPath(const Json::Value& path) {
    std::string bytes;
    return path.isString() && SDK::PercentDecode(path.asString(), bytes) && !bytes.empty() &&
           bytes.front() == '/' && bytes.find('\0') == std::string::npos;
}

bool ArePaths(const Json::Value& paths) {
    return paths.isArray() && std::all_of(paths.begin(), paths.end(), IsPath);
}

/// False when `given` has another form.
bool Complete(const std::string& action, const Json::Value& given, Json::Value& request) {
    if (!given.isObject()) return false;
    const Json::Value paths = given.get("paths", Json::Value(Json::arrayValue));
    const Json::Value all = given.get("all", false);
    if (!ArePaths(paths) || !all.isBool()) return false;
    request["action"] = action;
    request["paths"] = paths;
    request["all"] = all;
    const Json::Value dry_run = given.get("dry_run", false);
    request["dry_run"] = action == "rollback" ? dry_run : Json::Value(false);
    if (action != "rollback") return all.asBool() == paths.empty();
    request["all"] = paths.empty();
    const Json::Value generation = given.get("generation", 0);
    request["generation"] = generation;
    return dry_run.isBool() && generation.isUInt() && generation.asUInt() > 0;
}

Reply NoModule() {
    return ErrorReply(503, "No module answers for baselines; is the protection module loaded?");
}

/// The module's answer with `status`, or its error with `error_status`.
Reply AnswerReply(const Json::Value& answer, int status, int error_status) {
    if (!answer.isObject()) return NoModule();
    const std::string error = JsonUtils::GetStringValue(answer, "error", "");
    if (!error.empty()) return ErrorReply(error_status, error);
    return {status, answer, ""};
}

}  // namespace

bool BaselineRequests::IsAction(const std::string& action) {
    return action == "accept" || action == "restore" || action == "rollback";
}

Reply BaselineRequests::Submit(const std::string& action, const Peer& peer,
                               const std::string& text) {
    Json::Value given;
    Json::Value request(Json::objectValue);
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), given) != 0 ||
        !Complete(action, given, request)) {
        return ErrorReply(400, kForm);
    }
    request["uid"] = static_cast<Json::UInt>(peer.user);
    request["pid"] = static_cast<Json::Int>(peer.process);
    Json::Value answer;
    if (!queries_.Ask("baseline.request", request, answer)) return NoModule();
    return AnswerReply(answer, 202, 422);
}

Reply BaselineRequests::Lend(const std::string& pem) {
    Json::Value request(Json::objectValue);
    request["key"] = pem;
    Json::Value answer;
    const bool is_answered = queries_.Ask("baseline.key", request, answer);
    Clear(request["key"]);
    return is_answered ? AnswerReply(answer, 200, 422) : NoModule();
}

Reply BaselineRequests::Progress(const std::string& id) {
    Poco::UInt64 number = 0;
    if (!Poco::NumberParser::tryParseUnsigned64(id, number)) {
        return ErrorReply(400, "The number of a request is a decimal number.");
    }
    Json::Value request(Json::objectValue);
    request["id"] = static_cast<Json::UInt64>(number);
    Json::Value answer;
    if (!queries_.Ask("baseline.progress", request, answer)) return NoModule();
    return AnswerReply(answer, 200, 404);
}

Reply BaselineRequests::Operate(const std::string& query, const std::string& action,
                                const Peer& peer, const std::string& text) {
    Json::Value request;
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), request) != 0 || !request.isObject()) {
        return ErrorReply(400, "The request is an object.");
    }
    request["action"] = action;
    request["uid"] = static_cast<Json::UInt>(peer.user);
    request["pid"] = static_cast<Json::Int>(peer.process);
    Json::Value answer;
    if (!queries_.Ask(query, request, answer)) return NoModule();
    return AnswerReply(answer, 200, 422);
}

}  // namespace Agent
