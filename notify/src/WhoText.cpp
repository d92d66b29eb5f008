#include "notify/WhoText.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/Printable.h>

#include <utility>

namespace Notify {

using SDK::JsonUtils;
using SDK::Printable;

namespace {

std::string Text(const Json::Value& object, const char* name) {
    return Printable(JsonUtils::GetStringValue(object, name, ""));
}

/// Empty when it is not there.
std::string Number(const Json::Value& object, const char* name) {
    const bool is_number = object.isObject() && object[name].isIntegral();
    return is_number ? object[name].asString() : "";
}

std::string Processes(const Json::Value& list) {
    std::string text;
    for (const Json::Value& one : list) {
        const std::string exe = Text(one, "exe");
        text += (text.empty() ? "" : ", ") + (exe.empty() ? "unknown" : exe) + " (" +
                Number(one, "pid") + ")";
    }
    return text;
}

/// "user 33", and as whom it acts where that is another.
std::string User(const Json::Value& who) {
    const std::string user = Number(who, "uid");
    const std::string effective = Number(who, "euid");
    if (user.empty()) return "";
    return "user " + user + (effective == user ? "" : " as " + effective);
}

}  // namespace

std::string ShortWho(const Json::Value& report) {
    const Json::Value& who = report["who"];
    const std::string exe = Text(who, "exe");
    if (exe.empty()) return "";
    const bool is_exact = JsonUtils::GetStringValue(who, "certainty", "") == "exact";
    std::string text = (is_exact ? "by " : "probably by ") + exe.substr(exe.rfind('/') + 1);
    const std::string user = User(who);
    const std::string unit = Text(who, "unit");
    if (!unit.empty()) text += " of " + unit;
    if (!user.empty()) text += ", " + user;
    return text + ", process " + Number(who, "pid");
}

std::vector<std::string> WhoLines(const Json::Value& report) {
    const Json::Value& who = report["who"];
    if (!who.isObject() || who.empty()) return {};
    const std::string reason = Text(who, "reason");
    std::vector<std::string> lines{"who: " + Text(who, "certainty") +
                                   (reason.empty() ? "" : " (" + reason + ")")};
    const std::pair<const char*, std::string> all[] = {
        {"program", Text(who, "exe")},
        {"command", Text(who, "cmdline")},
        {"process", Number(who, "pid")},
        {"user", User(who)},
        {"login user", Number(who, "login")},
        {"session", Number(who, "session")},
        {"unit", Text(who, "unit")},
        {"container", Text(who, "container")},
        {"started by", Processes(who["parents"])},
        {"others in the same second", Processes(who["others"])},
    };
    for (const auto& [name, text] : all) {
        if (!text.empty()) lines.push_back(std::string("  ") + name + ": " + text);
    }
    return lines;
}

}  // namespace Notify
