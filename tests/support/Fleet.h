#pragma once

#include <fleet/BrokerSettings.h>
#include <json/value.h>

#include <string>
#include <vector>

#include "support/Child.h"
#include "support/TempDir.h"

namespace test {

/// Debian's mosquitto on loopback, with the sample configuration and access list of docs/fleet/
/// and certificates of its own.
class Broker {
  public:
    /// Users with a password: "collector", "operator" and these hosts.
    explicit Broker(const std::vector<std::string>& agent_ids);

    /// Clients of these names have certificates instead of passwords. Before Start.
    void UseCertificates(const std::vector<std::string>& users);

    /// Starts it and waits until it listens.
    bool Start();
    void Kill() { process_.Kill(); }

    int Port() const { return port_; }
    Fleet::BrokerSettings SettingsOf(const std::string& user) const;

    /// The object "broker" of a configuration.
    Json::Value JsonOf(const std::string& user) const;
    std::string Path(const std::string& name) const { return dir_.Path(name); }

  private:
    bool IsListening() const;

    TempDir dir_;
    int port_ = 0;
    bool has_certificates_ = false;
    Child process_;
};

/// The built collector.
class CollectorProcess {
  public:
    /// `database`: as in its configuration; null: an SQLite file.
    explicit CollectorProcess(const Broker& broker, const Json::Value& database = {});

    /// Starts the service and waits until it listens.
    bool Start();
    void Kill() { process_.Kill(); }
    int Stop() { return process_.Stop(); }
    pid_t Pid() const { return process_.Pid(); }

    /// Runs another command of the collector.
    CommandResult Run(const std::vector<std::string>& words) const;
    std::string Database() const { return dir_.Path("fleet.db"); }
    Json::Value Status() const;

    /// The objects that a command prints, one a line.
    std::vector<Json::Value> Lines(const std::vector<std::string>& words) const;
    std::string Path(const std::string& name) const { return dir_.Path(name); }

  private:
    TempDir dir_;
    Child process_;
};

}  // namespace test
