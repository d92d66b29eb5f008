#include "status/WatchList.h"

#include <sdk/files/PathUtils.h>

#include "base/RunningEngine.h"

namespace Engine {

namespace {

constexpr const char* kReceiver = "sentrel_inotify_task";

}  // namespace

Json::Value AskForWatches() {
    Framework::Engine* engine = RunningEngine();
    Json::Value watches;
    const bool answered =
        engine != nullptr &&
        engine->Queries().Ask("filenotify.watches", Json::Value(Json::objectValue), watches);
    return answered ? watches : Json::Value();
}

Json::Value FindWatch(const Json::Value& watches, const std::string& id) {
    if (id.empty() || !watches.isObject()) return {};
    for (const Json::Value& watch : watches["watches"]) {
        if (watch["id"] == id && watch["receiver"] == kReceiver) return watch;
    }
    return {};
}

Watching WatchingOf(const SentrelDirRule& rule) {
    Framework::Engine* engine = RunningEngine();
    if (engine == nullptr || engine->FindTask(kReceiver) == nullptr) return Watching::kUnknown;
    const Json::Value watches = AskForWatches();
    if (watches.isNull()) return Watching::kUnknown;
    const Json::Value watch =
        FindWatch(watches, SDK::PathUtils::WithoutTrailingSlash(rule.real_path));
    if (watch.isNull()) return Watching::kMissing;
    return watch["state"] == "walking" ? Watching::kWalking : Watching::kReady;
}

}  // namespace Engine
