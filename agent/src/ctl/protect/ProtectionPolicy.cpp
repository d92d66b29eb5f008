// Owns a policy document while it is edited. It must not judge it (the protection module does).
#include "ctl/protect/ProtectionPolicy.h"

#include <json/writer.h>
#include <sdk/files/PathUtils.h>
#include <sdk/host/SystemUtils.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <cctype>
#include <tuple>

#include "ctl/baselines/PolicyPaths.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

std::vector<std::string> Texts(const Json::Value& entry, const char* key) {
    std::vector<std::string> texts;
    Json::Value list;
    if (!JsonUtils::GetArrayValue(entry, key, list)) return texts;
    for (const Json::Value& text : list) {
        if (text.isString()) texts.push_back(text.asString());
    }
    return texts;
}

Json::Value ListOf(const std::vector<std::string>& texts) {
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) list.append(text);
    return list;
}

ProtectedEntry EntryOf(const Json::Value& entry) {
    return {SDK::PathUtils::WithoutTrailingSlash(JsonUtils::GetStringValue(entry, "filepath", "")),
            JsonUtils::GetStringValue(entry, "backup_path", ""),
            JsonUtils::GetBoolValue(entry, "enable", false),
            JsonUtils::GetBoolValue(entry, "auto_restore", false),
            Texts(entry, "ignored_subdir"),
            Texts(entry, "ignored_postfix")};
}

char NameCharacter(char c) {
    const bool is_plain = std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_';
    return c == '/' || is_plain || c == '-' ? (c == '/' ? '-' : c) : '_';
}

}  // namespace

bool ProtectedEntry::operator==(const ProtectedEntry& other) const {
    const auto all = [](const ProtectedEntry& one) {
        return std::tie(one.path, one.backup_path, one.is_enabled, one.auto_restore, one.subdirs,
                        one.suffixes);
    };
    return all(*this) == all(other);
}

ProtectionPolicy::ProtectionPolicy() {
    root_["enabled"] = true;
    Content()["os_type"] = 0;
    Content()["backup_type"] = 0;
    Content()["monitor_only"] = false;
    Content()["diff_content"] = true;
    Content()["diff_attr"] = true;
    Content()["dirlist"] = Json::Value(Json::arrayValue);
}

std::optional<ProtectionPolicy> ProtectionPolicy::Parse(const std::string& text) {
    ProtectionPolicy policy;
    Json::Value root;
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0 || !root.isObject()) {
        return std::nullopt;
    }
    Json::Value& content = root["content"];
    if (!content.isObject() && !content.isNull()) return std::nullopt;
    if (!content.isMember("dirlist")) content["dirlist"] = Json::Value(Json::arrayValue);
    if (!content["dirlist"].isArray()) return std::nullopt;
    // A policy that is off may lack what an enabled one needs.
    if (!content.isMember("os_type")) content["os_type"] = 0;
    policy.root_ = root;
    return policy;
}

bool ProtectionPolicy::IsOn() const {
    return JsonUtils::GetBoolValue(root_, "enabled", false);
}

void ProtectionPolicy::SwitchOn() {
    root_["enabled"] = true;
}

std::vector<ProtectedEntry> ProtectionPolicy::Entries() const {
    std::vector<ProtectedEntry> entries;
    for (const Json::Value& entry : List()) {
        ProtectedEntry one = EntryOf(entry);
        if (!one.path.empty()) entries.push_back(std::move(one));
    }
    return entries;
}

int ProtectionPolicy::IndexOf(const std::string& path) const {
    const std::string wanted = CanonicalPath(path);
    for (Json::ArrayIndex at = 0; at < List().size(); ++at) {
        const std::string known = EntryOf(List()[at]).path;
        if (known.empty()) continue;
        if (known == path || CanonicalPath(known) == wanted) return static_cast<int>(at);
    }
    return -1;
}

std::optional<ProtectedEntry> ProtectionPolicy::Find(const std::string& path) const {
    const int at = IndexOf(path);
    if (at < 0) return std::nullopt;
    return EntryOf(List()[at]);
}

void ProtectionPolicy::Put(const ProtectedEntry& entry) {
    Json::Value& list = Content()["dirlist"];
    const int at = IndexOf(entry.path);
    Json::Value& into =
        at < 0 ? list.append(Json::Value(Json::objectValue)) : list[static_cast<unsigned>(at)];
    into["enable"] = entry.is_enabled;
    into["auto_restore"] = entry.auto_restore;
    into["filepath"] = entry.path;
    into["backup_path"] = entry.backup_path;
    into["ignored_subdir"] = ListOf(entry.subdirs);
    into["ignored_postfix"] = ListOf(entry.suffixes);
}

void ProtectionPolicy::Remove(const std::string& path) {
    const int at = IndexOf(path);
    Json::Value removed;
    if (at >= 0) Content()["dirlist"].removeIndex(static_cast<Json::ArrayIndex>(at), &removed);
}

void ProtectionPolicy::UseRsync(const std::string& program, const std::string& digest) {
    const std::string prefix = "rsync_" + SDK::SystemUtils::GetInstance()->GetOsArch();
    const std::string own = "file://" + program;
    for (const char* family : {"", "_tx"}) {
        Json::Value& content = Content();
        const std::string url = prefix + family + "_url";
        const std::string known = JsonUtils::GetStringValue(content, url.c_str(), "");
        if (!known.empty() && known != own) continue;
        content[url] = own;
        content[prefix + family + "_hash"] = digest;
    }
}

std::string ProtectionPolicy::Text() const {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    return Json::writeString(writer, root_) + "\n";
}

std::string DefaultBackupPath(const std::string& parent, const std::string& path,
                              const std::vector<std::string>& taken) {
    std::string name;
    for (const char c : path.substr(path.find_first_not_of('/'))) name += NameCharacter(c);
    const std::string first = parent + "/" + name;
    std::string result = first;
    const auto is_taken = [&](const std::string& one) {
        return SDK::PathUtils::WithoutTrailingSlash(one) == result;
    };
    for (int number = 2; std::any_of(taken.begin(), taken.end(), is_taken); ++number) {
        result = first + "-" + std::to_string(number);
    }
    return result;
}

}  // namespace Ctl
