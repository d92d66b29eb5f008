#pragma once

#include <json/value.h>

#include <string>

namespace Fleet {

/// How to reach the MQTT broker and as whom.
struct BrokerSettings {
    std::string host;
    int port = 0;
    std::string ca_file;    ///< empty: no TLS, only for a broker on this host
    std::string cert_file;  ///< of the client, with key_file; empty: none
    std::string key_file;
    std::string user;
    std::string password_file;  ///< empty: no password
    int keepalive_s = 20;       ///< the broker tells others after one and a half of it
};

/// Reads the object "broker" of a configuration. False with `error`, which begins with the JSON
/// pointer of the fault: an unknown key, a wrong value, a key without certificate, a host name
/// without TLS that is not this host.
bool ReadBrokerSettings(const Json::Value& object, const std::string& pointer,
                        BrokerSettings& settings, std::string& error);

}  // namespace Fleet
