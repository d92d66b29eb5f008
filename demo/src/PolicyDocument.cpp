#include "PolicyDocument.h"

#include <json/json.h>

#include <climits>

#include "sdk/FileUtils.h"
#include "sdk/SystemUtils.h"

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

}  // namespace

std::string MakePolicy(const PolicyRequest& request) {
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(request.rsync, digest, LONG_MAX) != 0) return {};
    Json::Value content;
    content["os_type"] = 0;
    const std::string key = "rsync_" + SDK::SystemUtils::GetInstance()->GetOsArch();
    for (const char* family : {"", "_tx"}) {
        content[key + family + "_url"] = "file://" + request.rsync;
        content[key + family + "_hash"] = digest;
    }
    content["backup_type"] = 0;
    content["diff_content"] = true;
    content["diff_attr"] = true;
    content["monitor_only"] = false;
    Json::Value tree = Rule(request, request.tree, "tree");
    for (const std::string& name : request.excluded_subdirs) tree["ignored_subdir"].append(name);
    for (const std::string& name : request.excluded_suffixes) tree["ignored_postfix"].append(name);
    content["dirlist"].append(tree);
    if (!request.file.empty()) content["dirlist"].append(Rule(request, request.file, "file"));
    Json::Value document;
    document["enabled"] = true;
    document["content"] = content;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    return Json::writeString(writer, document) + "\n";
}

}  // namespace Demo
