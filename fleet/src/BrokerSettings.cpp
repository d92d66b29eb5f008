#include <fleet/BrokerSettings.h>

#include <array>

namespace Fleet {

namespace {

constexpr int kPlainPort = 1883;
constexpr int kTlsPort = 8883;

struct TextKey {
    const char* name;
    std::string BrokerSettings::*member;
};

constexpr std::array<TextKey, 6> kTextKeys{{
    {"host", &BrokerSettings::host},
    {"ca_file", &BrokerSettings::ca_file},
    {"cert_file", &BrokerSettings::cert_file},
    {"key_file", &BrokerSettings::key_file},
    {"user", &BrokerSettings::user},
    {"password_file", &BrokerSettings::password_file},
}};

struct NumberKey {
    const char* name;
    int BrokerSettings::*member;
    int least;
    int most;
};

constexpr std::array<NumberKey, 2> kNumberKeys{{
    {"port", &BrokerSettings::port, 1, 65535},
    {"keepalive_seconds", &BrokerSettings::keepalive_s, 5, 40},
}};

/// False when the key is unknown or its value is wrong; `fault` then says what is expected.
bool Take(const std::string& name, const Json::Value& value, BrokerSettings& settings,
          std::string& fault) {
    for (const TextKey& key : kTextKeys) {
        if (name != key.name) continue;
        fault = "must be a string";
        if (value.isString()) settings.*key.member = value.asString();
        return value.isString();
    }
    for (const NumberKey& key : kNumberKeys) {
        if (name != key.name) continue;
        fault = "must be an integer from " + std::to_string(key.least) + " to " +
                std::to_string(key.most);
        if (!value.isInt() || value.asInt() < key.least || value.asInt() > key.most) return false;
        settings.*key.member = value.asInt();
        return true;
    }
    fault = "unknown key";
    return false;
}

bool IsThisHost(const std::string& host) {
    return host == "localhost" || host == "127.0.0.1" || host == "::1";
}

/// Empty, or the fault of the settings as a whole.
std::string Contradiction(const BrokerSettings& settings) {
    if (settings.host.empty()) return "/host: must name the broker";
    if (settings.ca_file.empty() && !IsThisHost(settings.host)) {
        return "/ca_file: must name the CA's certificate, as the broker is not on this host";
    }
    if (settings.cert_file.empty() != settings.key_file.empty()) {
        return "/cert_file: needs key_file, and the reverse";
    }
    if (settings.ca_file.empty() && !settings.cert_file.empty()) {
        return "/cert_file: needs ca_file";
    }
    return "";
}

}  // namespace

bool ReadBrokerSettings(const Json::Value& object, const std::string& pointer,
                        BrokerSettings& settings, std::string& error) {
    if (!object.isObject()) {
        error = pointer + ": must be an object";
        return false;
    }
    std::string fault;
    for (const std::string& name : object.getMemberNames()) {
        if (Take(name, object[name], settings, fault)) continue;
        error = pointer;
        error += "/" + name;
        error += ": " + fault;
        return false;
    }
    const std::string wrong = Contradiction(settings);
    if (!wrong.empty()) {
        error = pointer + wrong;
        return false;
    }
    if (settings.port == 0) settings.port = settings.ca_file.empty() ? kPlainPort : kTlsPort;
    return true;
}

}  // namespace Fleet
