#pragma once

#include <database/Session.h>
#include <fleet/BrokerSettings.h>
#include <json/value.h>
#include <notify/Settings.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Collector {

constexpr const char* kDefaultConfig = "/etc/sentrel-collector/collector.json";

/// The console; off without a port.
struct ConsoleSettings {
    std::string address = "127.0.0.1";
    int port = 0;
    std::string certificate;  ///< PEM file with its chain; with `key`. Empty: only on this host
    std::string key;
    std::vector<std::string> names;  ///< how browsers call it, such as "fleet.example:8443"
};

/// The configuration of the collector.
struct CollectorSettings {
    Fleet::BrokerSettings broker;
    Database::Location database = "/var/lib/sentrel-collector/fleet.db";
    std::string group = "collectors";  ///< of the shared subscription
    ConsoleSettings console;
    Json::Value notify;        ///< for MakeNotifySettings; null: nobody is told
    std::string metrics_file;  ///< empty: none
    int silent_after_s = 45;
    int keep_days = 90;
    int max_megabytes_per_host = 64;  ///< of bodies; the oldest reports of a host go first
    int max_hosts = 20000;

    std::int64_t SilentAfterMs() const { return silent_after_s * 1000LL; }
    std::int64_t KeepMs() const { return keep_days * 24LL * 3600 * 1000; }
    std::int64_t MaxBytesPerHost() const { return max_megabytes_per_host * 1024LL * 1024; }
};

/// Reads the file. False with `error`: it cannot be read, is no JSON object, or has an unknown key
/// or a wrong value.
bool ReadSettings(const std::string& file, CollectorSettings& settings, std::string& error);

/// Reads the section "notify". Not a part of ReadSettings, since only the service can read the
/// secret of a webhook. False with `error`.
bool MakeNotifySettings(const Json::Value& section, Notify::Settings& settings, std::string& error);

}  // namespace Collector
