// Owns the form of requests about deploys. It must not print (the commands do).
#include "ctl/deploy/DeployClient.h"

#include <Poco/Net/HTTPRequest.h>
#include <baseline/StagedChanges.h>
#include <poll.h>
#include <sdk/files/ExclusionPatterns.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr int kTimeoutS = 60;
constexpr int kPollMs = 100;
constexpr int kOk = 200;

std::string Decoded(const Json::Value& text) {
    std::string bytes;
    return text.isString() && SDK::PercentDecode(text.asString(), bytes) ? bytes : "";
}

std::vector<std::string> AllDecoded(const Json::Value& array) {
    std::vector<std::string> texts;
    for (const Json::Value& one : array) texts.push_back(Decoded(one));
    return texts;
}

bool Read(const Answer& answer, OpenDeploy& deploy) {
    if (answer.kind != Answer::Kind::kAnswered || answer.status != kOk) return false;
    const Json::Value& body = answer.body;
    deploy.id = JsonUtils::GetStringValue(body, "id", "");
    deploy.plan.root = Decoded(body["root"]);
    deploy.plan.copies = Decoded(body["copies"]);
    deploy.plan.directory = Decoded(body["directory"]);
    deploy.plan.subdirectories = AllDecoded(body["subdirectories"]);
    deploy.exclusions = AllDecoded(body["exclusions"]);
    deploy.link = Decoded(body["link"]);
    return !deploy.plan.root.empty() && !deploy.plan.copies.empty() &&
           !deploy.plan.directory.empty();
}

}  // namespace

Answer DeployClient::Ask(const std::string& subject, const std::string& action,
                         const Json::Value& request) const {
    return client_.Send(Poco::Net::HTTPRequest::HTTP_POST, "/v1/" + subject + "/" + action,
                        JsonUtils::JsonToString(request), kTimeoutS);
}

Answer DeployClient::Ask(const std::string& action, const std::string& id) const {
    Json::Value request(Json::objectValue);
    request["id"] = id;
    return Ask("deploy", action, request);
}

bool DeployClient::Begin(const Json::Value& request, OpenDeploy& deploy, Answer& answer) const {
    answer = Ask("deploy", "begin", request);
    return Read(answer, deploy);
}

bool DeployClient::Show(const std::string& id, OpenDeploy& deploy, Answer& answer) const {
    answer = Ask("show", id);
    return Read(answer, deploy);
}

void DeployClient::DetachLeftOvers(const OpenDeploy& own) const {
    const Answer answer = Ask("deploy", "list", Json::Value(Json::objectValue));
    if (answer.kind != Answer::Kind::kAnswered || answer.status != kOk) return;
    std::set<std::string> open;
    for (const Json::Value& deploy : answer.body["deploys"]) {
        open.insert(JsonUtils::GetStringValue(deploy, "id", ""));
    }
    const std::filesystem::path home = std::filesystem::path(own.plan.directory).parent_path();
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(home, error)) {
        if (open.count(entry.path().filename().string()) > 0) continue;
        Overlay({"", "", entry.path().string(), {}}).DetachTree();
    }
}

Answer DeployClient::AwaitEnd(const std::string& id) const {
    while (true) {
        Answer answer = Ask("progress", id);
        if (answer.kind != Answer::Kind::kAnswered || answer.status != kOk) return answer;
        if (JsonUtils::GetStringValue(answer.body, "state", "") != "running") return answer;
        ::poll(nullptr, 0, kPollMs);
    }
}

std::string ListStaged(const OpenDeploy& deploy, DifferenceList& list) {
    const auto staged = SDK::PathAnchor::Open(deploy.plan.directory + "/upper");
    const auto base = SDK::PathAnchor::Open(deploy.plan.copies);
    if (staged == nullptr || base == nullptr) {
        return std::string("What was changed cannot be read: ") + std::strerror(errno) + ".";
    }
    const SDK::ExclusionPatterns exclusions(deploy.exclusions);
    Baseline::StagedChanges::Request request;
    request.staged = staged.get();
    request.base = base.get();
    request.ignored = [&](const std::string& below, bool is_directory) {
        return exclusions.Match(deploy.plan.root + "/" + below, is_directory);
    };
    request.is_over = [] { return false; };
    const auto result = Baseline::StagedChanges(std::move(request)).Read();
    for (const Baseline::Difference& change : result.changes) list.Add({deploy.plan.root, change});
    return result.problem;
}

}  // namespace Ctl
