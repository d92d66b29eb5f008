// Decides what keeps a change from being undone. It must not gather facts (SentrelStatus and the
// module do). Pure.
#include "status/ProtectionHealth.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <string>
#include <utility>

#include "base/BackupType.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr char kLocalBackupFailure[] = "local backup: ";

std::string Text(const Json::Value& object, const char* key) {
    return JsonUtils::GetStringValue(object, key, "");
}

Json::Int64 Number(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object[key].isInt64()) return 0;
    return object[key].asInt64();
}

/// "1 change", "2 changes".
std::string Counted(Json::Int64 count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

/// The reasons found so far.
class Reasons {
  public:
    void Add(const char* code, const std::string& text, const std::string& path = "") {
        Json::Value reason(Json::objectValue);
        reason["code"] = code;
        reason["text"] = text;
        reason["path"] = path;
        list_.append(std::move(reason));
    }
    Json::Value As(const char* state) && {
        Json::Value health(Json::objectValue);
        health["state"] = state;
        health["reasons"] = std::move(list_);
        return health;
    }
    bool IsEmpty() const { return list_.empty(); }

  private:
    Json::Value list_{Json::arrayValue};
};

void AddWatchReason(const Json::Value& entry, const std::string& path, Reasons& reasons) {
    const std::string state = Text(entry, "state");
    if (state == "waiting") {
        reasons.Add("missing", "the path does not exist; it is watched for", path);
    } else if (state == "walking") {
        reasons.Add("walking", "the watches are still being placed", path);
    } else if (state == "degraded") {
        reasons.Add("unwatched_directories", "some directories cannot be watched", path);
    } else if (state != "ready") {
        reasons.Add("not_watched", "changes there are not watched", path);
    }
}

void AddBackupReason(const Json::Value& entry, const std::string& path, Reasons& reasons) {
    if (Text(entry, "backup_path").empty()) {
        const bool wanted = JsonUtils::GetBoolValue(entry, "auto_restore", false);
        if (wanted) reasons.Add("no_backup_path", "the policy names no backup path", path);
        return;
    }
    if (JsonUtils::GetBoolValue(entry, "backup_complete", true)) return;
    const std::string failure = Text(entry, "last_failure");
    const bool has_failed = SDK::StrUtils::BeginsWith(failure, kLocalBackupFailure);
    reasons.Add("backup_incomplete",
                has_failed ? "the backup copy cannot be completed: " +
                                 failure.substr(sizeof(kLocalBackupFailure) - 1)
                           : "the backup copy is not complete yet",
                path);
}

void AddPathReasons(const Json::Value& entry, bool makes_copies, Reasons& reasons) {
    const std::string path = Text(entry, "path");
    const std::string problem = Text(entry, "problem");
    if (!problem.empty()) reasons.Add("not_in_place", problem, path);
    AddWatchReason(entry, path, reasons);
    if (makes_copies) AddBackupReason(entry, path, reasons);
    const Json::Int64 held = Number(entry, "held");
    if (held > 0) {
        reasons.Add("held",
                    Counted(held, "change") + (held == 1 ? " waits" : " wait") +
                        " for a decision (morvanectl verify, then accept or restore)",
                    path);
    }
    const Json::Int64 open = Number(entry["open_objects"], "count");
    if (open > 0) {
        reasons.Add("open_objects", Counted(open, "object") + " could not be copied", path);
    }
    const std::string left_out = Text(entry, "attributes_not_compared");
    if (!left_out.empty()) {
        reasons.Add("attributes_not_compared",
                    "the backup path cannot keep these attributes: " + left_out, path);
    }
}

/// What the newest failure of any path says; empty for none.
std::string NewestFailure(const Json::Value& paths) {
    std::string text;
    Json::Int64 newest = 0;
    for (const Json::Value& entry : paths) {
        if (Number(entry, "last_failure_at") < newest || Text(entry, "last_failure").empty()) {
            continue;
        }
        newest = Number(entry, "last_failure_at");
        text = Text(entry, "last_failure");
    }
    return text.empty() ? text : "; last failure: " + text;
}

void AddBacklogReasons(const Json::Value& status, Reasons& reasons) {
    const Json::Int64 failed =
        Number(status["backlog"], "failed") + Number(status["backlog"], "given_up");
    if (failed == 0) return;
    reasons.Add("not_undone", Counted(failed, "change") + " could not be undone yet" +
                                  NewestFailure(status["protected_paths"]));
}

/// A place among those of the policy from which nothing is restored. Others only warn.
void AddUnsafePlaces(const Json::Value& status, Reasons& reasons) {
    for (const Json::Value& place : status["unsafe_places"]) {
        const std::string path = Text(place, "path");
        for (const Json::Value& entry : status["protected_paths"]) {
            if (Text(entry, "backup_path") != path) continue;
            reasons.Add("unsafe_place",
                        "the backup path is not safe from other users: " + Text(place, "reason"),
                        path);
            break;
        }
    }
}

void AddPauses(const Json::Value& status, Reasons& reasons) {
    for (const Json::Value& pause : status["pauses"]) {
        const std::string why = Text(pause, "reason");
        reasons.Add("pause",
                    "changes are held until the pause ends (morvanectl resume)" +
                        (why.empty() ? why : ": " + why),
                    Text(pause, "path"));
    }
}

void AddServerReason(const Json::Value& server, Reasons& reasons) {
    if (!JsonUtils::GetBoolValue(server, "on", false)) return;
    if (JsonUtils::GetBoolValue(server, "running", false)) return;
    reasons.Add("backup_server_down", "the backup server's rsync daemon does not run");
}

/// A host that only takes the backups of others protects nothing and is healthy all the same.
Json::Value HealthWithoutProtection(const Json::Value& server) {
    Reasons reasons;
    if (!JsonUtils::GetBoolValue(server, "on", false)) {
        reasons.Add("off",
                    "no policy switches the protection on; begin with morvanectl protect DIR");
        return std::move(reasons).As("off");
    }
    AddServerReason(server, reasons);
    const bool is_running = reasons.IsEmpty();
    return std::move(reasons).As(is_running ? "healthy" : "degraded");
}

}  // namespace

Json::Value ProtectionHealth(const Json::Value& status) {
    const Json::Value& protection = status["protection"];
    if (!JsonUtils::GetBoolValue(protection, "on", false)) {
        return HealthWithoutProtection(status["backup_server"]);
    }
    Reasons reasons;
    if (!JsonUtils::GetBoolValue(protection, "working", false)) {
        const bool is_planned = !JsonUtils::GetBoolValue(status["schedule"], "working", true);
        reasons.Add("paused", is_planned ? "the protection is " + Text(status["schedule"], "text")
                                         : "the protection pauses");
        return std::move(reasons).As("off");
    }
    const Json::Value& paths = status["protected_paths"];
    if (paths.empty()) {
        reasons.Add("no_path", "no path that the policy names is protected");
        return std::move(reasons).As("off");
    }
    const bool makes_copies = MakesLocalCopies(static_cast<int>(Number(status["backup"], "type")));
    for (const Json::Value& entry : paths) AddPathReasons(entry, makes_copies, reasons);
    AddPauses(status, reasons);
    AddBacklogReasons(status, reasons);
    AddUnsafePlaces(status, reasons);
    AddServerReason(status["backup_server"], reasons);
    const bool is_healthy = reasons.IsEmpty();
    return std::move(reasons).As(is_healthy ? "healthy" : "degraded");
}

}  // namespace Engine
