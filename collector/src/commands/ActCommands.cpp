// Acts: what hosts are to do, signed here or elsewhere.
#include <fleet/SignedAct.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "centre/Rollouts.h"
#include "commands/Commands.h"
#include "commands/DatabaseAccess.h"
#include "commands/KeyFile.h"

namespace Collector {

namespace {

constexpr long kMostDocument = 1024 * 1024;

/// What the act needs, or a sentence in `error`.
Json::Value RequestOf(const Arguments& arguments, std::string& error) {
    Json::Value request(Json::objectValue);
    const std::string& name = arguments.act;
    const bool is_decision = name == "accept" || name == "restore" || name == "rollback";
    const bool needs_time = name == "pause" || name == "deploy-begin";
    const bool needs_id = name == "deploy-commit" || name == "deploy-abort";
    if (is_decision) {
        request["all"] = arguments.all;
        request["paths"] = Json::Value(Json::arrayValue);
        for (const std::string& path : arguments.paths) {
            request["paths"].append(SDK::PercentEncode(path));
        }
        if (arguments.all != arguments.paths.empty()) error = "name paths, or give --all";
    } else if (!needs_id) {
        if (arguments.paths.size() != 1) error = "name one protected path";
        if (error.empty()) request["path"] = SDK::PercentEncode(arguments.paths[0]);
    }
    if (name == "rollback") {
        request["generation"] = Json::Int64{arguments.generation};
        if (arguments.generation <= 0) error = "give --generation";
    }
    if (needs_time) request["seconds"] = Json::Int64{arguments.seconds};
    if (needs_time && arguments.seconds <= 0) error = "say with --for how long";
    if (needs_id) request["id"] = arguments.id;
    if (needs_id && arguments.id.empty()) error = "give the deploy's --id";
    if (name.rfind("deploy-", 0) == 0) request["action"] = name.substr(7);
    if (!arguments.reason.empty()) request["reason"] = arguments.reason;
    return request;
}

int PrintDocument(const std::string& document) {
    std::cout << document << std::endl;
    return std::cout.good() ? kExitOk : kExitFailed;
}

}  // namespace

int MakeAct(const Arguments& arguments) {
    Fleet::SignedAct act;
    std::string error;
    act.hosts = AudienceOf(arguments);
    act.request = RequestOf(arguments, error);
    if (error.empty() && act.hosts.empty()) error = "name --host or --group, or give --all-hosts";
    if (!error.empty()) return Fail(error);
    act.number = arguments.version > 0 ? arguments.version : NumberNow();
    act.issued_s = SDK::TimeUtils::GetCurrentTimestampS();
    act.expires_s = act.issued_s + arguments.valid_s;
    act.signer = arguments.signer;
    act.name = arguments.act.rfind("deploy-", 0) == 0 ? "deploy" : arguments.act;
    const std::string content = Fleet::ContentOf(act);
    if (!Fleet::ReadContent(content, act)) {
        return Fail("this cannot be signed: a host is no agent id, or a text is too long");
    }
    if (arguments.key_file.empty()) {
        return PrintDocument(Fleet::ToBeSigned(Fleet::DocumentKind::kAct, content));
    }
    const auto key = ReadPrivateKey(arguments.key_file, error);
    if (key == nullptr) return Fail(error);
    return PrintDocument(Fleet::Seal(Fleet::DocumentKind::kAct, content, *key));
}

int SignDocument(const Arguments& arguments) {
    std::string text;
    std::string content;
    std::string error;
    Fleet::DocumentKind kind = Fleet::DocumentKind::kPolicy;
    if (SDK::FileUtils::ReadFile(arguments.file, text, kMostDocument) != 0 ||
        !Fleet::ReadToBeSigned(text, kind, content)) {
        return Fail(arguments.file + " is no document that is to be signed");
    }
    const auto key = ReadPrivateKey(arguments.key_file, error);
    if (key == nullptr) return Fail(error);
    const std::string document = Fleet::Seal(kind, content, *key);
    if (document.empty()) return Fail("the document is too large");
    return PrintDocument(document);
}

int RollOut(const Arguments& arguments) {
    std::string text;
    Database::Location database;
    FleetStore hosts;
    RolloutStore store;
    std::vector<HostRecord> known;
    if (SDK::FileUtils::ReadFile(arguments.file, text, kMostDocument) != 0) {
        return Fail("cannot read " + arguments.file);
    }
    while (!text.empty() && text.back() == '\n') text.pop_back();
    const auto delivery = ReadDelivery(text);
    if (!delivery) return Fail(arguments.file + " is no signed policy or act");
    if (!FindDatabase(arguments, database) || !OpenDatabase(arguments, hosts)) return kExitFailed;
    if (!hosts.ReadHosts(known) || !store.Open(database)) {
        return Fail("cannot read the database: " + hosts.Error() + store.Error());
    }
    Rollout rollout;
    rollout.time_ms = NumberNow();
    rollout.author = arguments.signer;
    const int count = Enqueue(*delivery, known, arguments.percent, store, rollout);
    if (count == 0) return Fail("the database knows no such host");
    if (count < 0) return Fail("cannot write the database: " + store.Error());
    std::cout << "for " << count << " hosts; sentrel_collector rollouts shows how far it is"
              << std::endl;
    return std::cout.good() ? kExitOk : kExitFailed;
}

}  // namespace Collector
