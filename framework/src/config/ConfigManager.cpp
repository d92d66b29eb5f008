// Owns the agent's configuration. AgentId.cpp owns the file of the identity. The main thread writes
// it before modules are loaded; after that it is only read.
#include <framework/ConfigManager.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "config/ConfigReader.h"

namespace Framework {

namespace {

constexpr long kMostBytes = 1024 * 1024;
constexpr long kOneDayMs = 24L * 3600 * 1000;
constexpr const char* kFleet = "fleet";
constexpr const char* kFleetModule = "fleet_module";
constexpr std::array<const char*, 9> kLevels = {
    "none", "fatal", "critical", "error", "warning", "notice", "information", "debug", "trace"};

LoggerConfig ReadLogger(const Json::Value& section, std::string& error) {
    LoggerConfig log;
    log.directory = "log";
    ConfigReader reader(section, "/log", error);
    reader.AllowOnly({"directory", "level", "rotate_bytes", "keep_files", "console"});
    long keep_files = log.keep_files;
    reader.Read("directory", log.directory);
    reader.Read("level", log.level);
    reader.Read("rotate_bytes", 4096, 1L << 40, log.rotate_bytes);
    reader.Read("keep_files", 0, 1000, keep_files);
    reader.Read("console", log.console);
    log.keep_files = static_cast<int>(keep_files);
    if (log.directory.empty()) reader.Fail("directory", "must not be empty");
    if (std::find(kLevels.begin(), kLevels.end(), log.level) == kLevels.end()) {
        reader.Fail("level", "\"" + log.level + "\" is no level (such as \"information\")");
    }
    log.directory =
        SDK::PathUtils::WithoutTrailingSlash(SDK::PathUtils::BelowInstallation(log.directory));
    return log;
}

void CheckModules(const std::vector<std::string>& names, std::string& error) {
    for (std::size_t i = 0; i < names.size() && error.empty(); ++i) {
        const auto here = names.begin() + static_cast<std::ptrdiff_t>(i);
        const std::string place = "/modules/" + std::to_string(i) + ": ";
        if (here->empty() || here->find('/') != std::string::npos) {
            error = place + "\"" + *here + "\" is no module name";
        } else if (std::find(names.begin(), here, *here) != here) {
            error = place + "\"" + *here + "\" is named twice";
        }
    }
}

/// The module of a configured fleet need not be named: nobody else wants its library loaded.
void AddFleetModule(const Json::Value& section, std::vector<std::string>& modules) {
    const bool is_named = std::find(modules.begin(), modules.end(), kFleetModule) != modules.end();
    if (!section.empty() && !is_named) modules.emplace_back(kFleetModule);
}

}  // namespace

ConfigManager::ConfigManager() {
    Reset();
}

ConfigManager& ConfigManager::GetInstance() {
    static ConfigManager instance;
    return instance;
}

void ConfigManager::Reset() {
    SetAgentId({});
    std::string no_error;
    logger_ = ReadLogger(Json::Value(Json::objectValue), no_error);
    modules_ = {"report_module", "filenotify_module", "sentrel_module"};
    task_period_ = std::chrono::seconds(3);
    policy_grace_ = std::chrono::seconds(5);
    cpu_limit_percent_ = 0;
    sections_ = Json::Value(Json::objectValue);
}

bool ConfigManager::Load(const std::string& path, bool required, std::string& error) {
    error.clear();
    std::string text;
    if (SDK::FileUtils::ReadFile(path, text, kMostBytes) != 0) {
        if (errno == ENOENT && !required) return true;
        error = path + ": " + std::strerror(errno);
        return false;
    }
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root, error) == 0) {
        error.clear();
        if (Take(root, error)) return true;
    }
    error = path + ": " + error;
    return false;
}

/// A document with an error changes nothing.
bool ConfigManager::Take(const Json::Value& root, std::string& error) {
    ConfigReader reader(root, "", error);
    reader.AllowOnly({"modules", "log", "task_period_ms", "policy_grace_ms", "cpu_limit_percent",
                      "report", "filenotify", "sentrel", "metrics", "notify", "sentry", kFleet});
    std::vector<std::string> modules = modules_;
    long period_ms = static_cast<long>(task_period_.count());
    long grace_ms = static_cast<long>(policy_grace_.count());
    long cpu_limit = cpu_limit_percent_;
    reader.Read("modules", modules);
    reader.Read("task_period_ms", 10, kOneDayMs, period_ms);
    reader.Read("policy_grace_ms", 10, kOneDayMs, grace_ms);
    reader.Read("cpu_limit_percent", 0, 100, cpu_limit);
    CheckModules(modules, error);
    const LoggerConfig logger = ReadLogger(reader.Object("log"), error);
    Json::Value sections(Json::objectValue);
    for (const char* name :
         {"report", "filenotify", "sentrel", "metrics", "notify", "sentry", kFleet})
        sections[name] = reader.Object(name);
    AddFleetModule(sections[kFleet], modules);
    if (!error.empty()) return false;
    modules_ = modules;
    logger_ = logger;
    task_period_ = std::chrono::milliseconds(period_ms);
    policy_grace_ = std::chrono::milliseconds(grace_ms);
    cpu_limit_percent_ = static_cast<int>(cpu_limit);
    sections_ = sections;
    return true;
}

Json::Value ConfigManager::Section(const std::string& name) const {
    return sections_.isMember(name) ? sections_[name] : Json::Value(Json::objectValue);
}

}  // namespace Framework
