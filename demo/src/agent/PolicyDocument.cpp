#include "agent/PolicyDocument.h"

#include <json/json.h>

#include <climits>

#include "sdk/files/FileUtils.h"
#include "sdk/host/SystemUtils.h"

namespace Demo {
namespace {

Json::Value Rule(const PolicyRequest& request, const std::string& path, const char* name) {
    Json::Value rule;
    rule["enable"] = true;
    rule["auto_restore"] = request.auto_restore;
    rule["filepath"] = path;
    rule["backup_path"] = request.backup + "/" + name + "/";
    rule["ignored_subdir"] = Json::Value(Json::arrayValue);
    rule["ignored_postfix"] = Json::Value(Json::arrayValue);
    return rule;
}

/// Adds the executable's address and digest to the policy; false when it cannot be read.
bool AddRsync(const std::string& rsync, Json::Value& content) {
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(rsync, digest, LONG_MAX) != 0) return false;
    const std::string key = "rsync_" + SDK::SystemUtils::GetInstance()->GetOsArch();
    for (const char* family : {"", "_tx"}) {
        content[key + family + "_url"] = "file://" + rsync;
        content[key + family + "_hash"] = digest;
    }
    return true;
}

std::string Document(const Json::Value& content) {
    Json::Value document;
    document["enabled"] = true;
    document["content"] = content;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    return Json::writeString(writer, document) + "\n";
}

}  // namespace

std::string MakePolicy(const PolicyRequest& request) {
    Json::Value content;
    if (!AddRsync(request.rsync, content)) return {};
    content["os_type"] = 0;
    content["backup_type"] = request.push_address.empty() ? 0 : 2;
    if (!request.push_address.empty()) {
        content["backup_addr"] = request.push_address;
        content["backup_port"] = request.push_port;
    }
    content["diff_content"] = true;
    content["diff_attr"] = true;
    content["monitor_only"] = false;
    Json::Value tree = Rule(request, request.tree, "tree");
    for (const std::string& name : request.excluded_subdirs) tree["ignored_subdir"].append(name);
    for (const std::string& name : request.excluded_suffixes) tree["ignored_postfix"].append(name);
    content["dirlist"].append(tree);
    if (!request.file.empty()) content["dirlist"].append(Rule(request, request.file, "file"));
    return Document(content);
}

std::string MakeServerPolicy(const ServerPolicyRequest& request) {
    Json::Value content;
    if (!AddRsync(request.rsync, content)) return {};
    content["backupserver_ip"] = request.address;
    content["backupserver_port"] = request.port;
    content["backupserver_path"] = request.path;
    return Document(content);
}

}  // namespace Demo
