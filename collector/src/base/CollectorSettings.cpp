#include "base/CollectorSettings.h"

#include <fleet/Topics.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Collector {

namespace {

constexpr long kMostBytes = 1024 * 1024;

struct NumberKey {
    const char* name;
    int CollectorSettings::*member;
    int least;
    int most;
};

constexpr std::array<NumberKey, 4> kNumberKeys{{
    {"silent_after_seconds", &CollectorSettings::silent_after_s, 2, 3600},
    {"keep_days", &CollectorSettings::keep_days, 1, 3650},
    {"max_megabytes_per_host", &CollectorSettings::max_megabytes_per_host, 1, 1024 * 1024},
    {"max_hosts", &CollectorSettings::max_hosts, 1, 1000 * 1000},
}};

bool TakeNumber(const NumberKey& key, const Json::Value& value, CollectorSettings& settings,
                std::string& fault) {
    fault =
        "must be an integer from " + std::to_string(key.least) + " to " + std::to_string(key.most);
    if (!value.isInt() || value.asInt() < key.least || value.asInt() > key.most) return false;
    settings.*key.member = value.asInt();
    return true;
}

bool TakeNames(const Json::Value& value, std::vector<std::string>& names) {
    if (!value.isArray()) return false;
    for (const Json::Value& name : value) {
        if (!name.isString() || name.asString().empty()) return false;
        names.push_back(name.asString());
    }
    return true;
}

bool TakeConsole(const std::string& name, const Json::Value& value, ConsoleSettings& console) {
    constexpr int kMostPort = 65535;
    if (name == "port") {
        if (!value.isInt() || value.asInt() < 1 || value.asInt() > kMostPort) return false;
        console.port = value.asInt();
        return true;
    }
    if (name == "names") return TakeNames(value, console.names);
    std::string* const text = name == "address"       ? &console.address
                              : name == "certificate" ? &console.certificate
                              : name == "key"         ? &console.key
                                                      : nullptr;
    if (text == nullptr || !value.isString() || value.asString().empty()) return false;
    *text = value.asString();
    return true;
}

/// Passwords cross no network in the clear.
bool TakeConsole(const Json::Value& object, ConsoleSettings& console, std::string& fault) {
    fault = "must be an object with port, address, certificate, key and names";
    if (!object.isObject()) return false;
    for (const std::string& name : object.getMemberNames()) {
        if (!TakeConsole(name, object[name], console)) return false;
    }
    fault = "needs a port, and a certificate with its key unless the address is 127.0.0.1";
    return console.port > 0 && console.certificate.empty() == console.key.empty() &&
           (!console.certificate.empty() || console.address == "127.0.0.1");
}

bool IsAbsolute(const Json::Value& value) {
    return value.isString() && !value.asString().empty() && value.asString()[0] == '/';
}

bool TakeServer(const std::string& name, const Json::Value& value, Database::Location& database) {
    constexpr int kMostPort = 65535;
    if (name == "port") {
        database.port = value.isInt() ? value.asInt() : 0;
        return database.port >= 1 && database.port <= kMostPort;
    }
    const bool is_file = name == "password_file" || name == "ca_file";
    std::string* const text = name == "host"            ? &database.host
                              : name == "name"          ? &database.name
                              : name == "user"          ? &database.user
                              : name == "password_file" ? &database.password_file
                              : name == "ca_file"       ? &database.ca_file
                                                        : nullptr;
    if (text == nullptr || !value.isString() || value.asString().empty() ||
        (is_file && !IsAbsolute(value))) {
        return false;
    }
    *text = value.asString();
    return true;
}

/// The path of an SQLite file, or a PostgreSQL server. Reports and hashes of passwords cross no
/// network in the clear.
bool TakeDatabase(const Json::Value& value, Database::Location& database, std::string& fault) {
    fault =
        "must be an absolute path, or an object with host, port, name, user, password_file, "
        "ca_file";
    if (value.isString()) {
        database = Database::Location(value.asString());
        return IsAbsolute(value);
    }
    if (!value.isObject()) return false;
    database = Database::Location();
    for (const std::string& name : value.getMemberNames()) {
        if (TakeServer(name, value[name], database)) continue;
        fault = name + ": unknown key or wrong value";
        return false;
    }
    fault = "host: must name the server, or the directory of its socket";
    if (database.host.empty()) return false;
    fault = "ca_file: must name the CA's certificate, as the server is not on this host";
    return !database.ca_file.empty() || database.host[0] == '/' || database.host == "127.0.0.1" ||
           database.host == "::1" || database.host == "localhost";
}

bool Take(const std::string& name, const Json::Value& value, CollectorSettings& settings,
          std::string& fault) {
    for (const NumberKey& key : kNumberKeys) {
        if (name == key.name) return TakeNumber(key, value, settings, fault);
    }
    if (name == "database") return TakeDatabase(value, settings.database, fault);
    if (name == "console") return TakeConsole(value, settings.console, fault);
    if (name == "metrics_file") {
        fault = "must be an absolute path";
        if (!IsAbsolute(value)) return false;
        settings.metrics_file = value.asString();
        return true;
    }
    if (name == "notify") {
        settings.notify = value;
        fault = "must be an object";
        return value.isObject();
    }
    if (name == "group") {
        fault = "must be made of letters, digits, \"_\", \"-\" and \".\"";
        if (!value.isString() || !Fleet::IsLeaf(value.asString())) return false;
        settings.group = value.asString();
        return true;
    }
    fault = "unknown key";
    return false;
}

bool TakeAll(const Json::Value& root, CollectorSettings& settings, std::string& error) {
    std::string fault;
    for (const std::string& name : root.getMemberNames()) {
        if (name == "broker" || Take(name, root[name], settings, fault)) continue;
        error = "/" + name + ": " + fault;
        return false;
    }
    return Fleet::ReadBrokerSettings(root["broker"], "/broker", settings.broker, error);
}

}  // namespace

bool ReadSettings(const std::string& file, CollectorSettings& settings, std::string& error) {
    std::string text;
    Json::Value root;
    if (SDK::FileUtils::ReadFile(file, text, kMostBytes) != 0) {
        error = std::strerror(errno);
    } else if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root, error) == 0) {
        error.clear();
        if (!root.isObject()) error = "it must be an object";
        if (error.empty() && TakeAll(root, settings, error)) return true;
    }
    error = file + ": " + error;
    return false;
}

bool MakeNotifySettings(const Json::Value& section, Notify::Settings& settings,
                        std::string& error) {
    if (section.isObject()) {
        for (const char* other : {"syslog", "journald", "ocsf", "hook_seconds"}) {
            if (!section.isMember(other)) continue;
            error = std::string("/notify/") + other + ": is a key of hosts";
            return false;
        }
    }
    std::vector<Notify::SettingsFault> faults;
    settings = Notify::ReadSettings(section, faults);
    if (faults.empty()) return true;
    error = faults.front().text;
    return false;
}

}  // namespace Collector
