#pragma once

#include <json/value.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

/// How the agent logs. `directory` is absolute and has no trailing "/".
struct LoggerConfig {
    std::string directory;
    std::string level = "information";
    long rotate_bytes = 10 * 1024 * 1024;
    int keep_files = 5;
    bool console = false;
};

/// The agent's configuration (conf/agent.json) and identity. Load it once, before the modules;
/// after that, reading is thread-safe.
class ConfigManager {
  public:
    static ConfigManager& GetInstance();

    /// Reads the file. A missing file is an error only when `required`; otherwise the defaults
    /// hold. Unknown keys, wrong types and values out of range are errors: false, with the JSON
    /// pointer in `error`; nothing changes then.
    bool Load(const std::string& path, bool required, std::string& error);

    /// The agent's id, created at the first start and kept in data/agent_id; empty before
    /// EnsureAgentId.
    std::string GetAgentId() const;
    bool EnsureAgentId(std::string& error);
    void SetAgentId(const std::string& id);

    const LoggerConfig& GetLoggerConfig() const { return logger_; }
    void SetLoggerConfig(const LoggerConfig& config) { logger_ = config; }

    const std::vector<std::string>& Modules() const {
        return modules_;
    }  ///< names to load, in order
    std::chrono::milliseconds TaskPeriod() const { return task_period_; }
    std::chrono::milliseconds PolicyGrace() const { return policy_grace_; }
    int CpuLimitPercent() const { return cpu_limit_percent_; }

    /// The configuration of one component ("report", "filenotify", "sentrel"), which checks it
    /// itself; an empty object when the key is missing.
    Json::Value Section(const std::string& name) const;

    /// Restores the defaults; for tests.
    void Reset();

  private:
    ConfigManager();
    bool Take(const Json::Value& root, std::string& error);

    mutable std::mutex mutex_;  ///< guards agent_id_
    std::string agent_id_;
    LoggerConfig logger_;
    std::vector<std::string> modules_;
    std::chrono::milliseconds task_period_{};
    std::chrono::milliseconds policy_grace_{};
    int cpu_limit_percent_ = 0;
    Json::Value sections_;
};

}  // namespace Framework
