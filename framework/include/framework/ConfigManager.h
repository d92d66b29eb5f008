#pragma once

#include <json/value.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

/// Where the agent logs to. `directory` is the first member and has no trailing "/".
struct LoggerConfig {
    std::string directory;
    std::string level = "information";
    long rotate_bytes = 10 * 1024 * 1024;
    int keep_files = 5;
    bool console = false;
};

/// The agent's configuration (conf/agent.json) and identity. Loaded once, before modules are;
/// reading is for any thread.
class ConfigManager {
  public:
    static ConfigManager& GetInstance();

    /// Reads the file. A missing file means defaults when `required` is false. Unknown keys, wrong
    /// types and values out of range are errors: false, and `error` names the JSON pointer.
    bool Load(const std::string& path, bool required, std::string& error);

    /// The id of this agent, made at first start and kept in data/agent_id; empty before
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

    /// The object under that key, for the component of that name ("report", "filenotify",
    /// "sentrel"); its own business to check. An empty object when there is none.
    Json::Value Section(const std::string& name) const;

    /// Back to the defaults, for tests.
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
