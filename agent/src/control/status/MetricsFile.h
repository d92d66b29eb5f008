#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Agent {

/// Where the metrics are written for node_exporter's textfile collector.
struct MetricsSettings {
    std::string file;  ///< absolute; ends in ".prom"; empty: nowhere
    std::chrono::seconds period{15};

    /// From the section "metrics" of conf/agent.json: {"file","period_seconds"}. A fault is
    /// described in `error`, and nothing is written then.
    static MetricsSettings Read(const Json::Value& section, std::string& error);
};

/// Writes `content` into the file in one step, readable for all (0644). Follows no link at the end
/// of the path. 0, or an errno.
int WriteMetricsFile(const std::string& file, const std::string& content);

/// Writes the metrics once a period on a thread of its own while it lives. The destructor removes
/// the file: what is old must not look like the present.
class MetricsFile {
  public:
    using Content = std::function<std::string()>;

    MetricsFile(const MetricsSettings& settings, Content content);
    ~MetricsFile();
    MetricsFile(const MetricsFile&) = delete;
    MetricsFile& operator=(const MetricsFile&) = delete;

  private:
    void Work();
    void WriteOnce();

    const MetricsSettings settings_;
    const Content content_;
    int last_error_ = 0;  ///< of the thread; each is logged once
    std::mutex mutex_;
    std::condition_variable stop_;
    bool is_stopping_ = false;  ///< guarded by mutex_
    std::thread thread_;
};

}  // namespace Agent
