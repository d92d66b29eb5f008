#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace Notify {

/// Where and how people are told: the section "notify" of conf/agent.json. A channel without its
/// address is off. Paths are absolute.
struct Settings {
    struct Mail {
        std::vector<std::string> to;
        std::string from;  ///< empty: the mail system's choice
        std::string sendmail = "/usr/sbin/sendmail";
    };
    struct Webhook {
        std::string url;
        std::string secret_file;  ///< empty: not signed
        std::string ca_file;      ///< empty: the system's certificates
    };
    struct Heartbeat {
        std::string url;
        std::string ca_file;
        int seconds = 300;
    };

    Mail mail;
    Webhook webhook;
    Heartbeat heartbeat;
    std::string syslog;    ///< a datagram socket
    std::string journald;  ///< the journal's socket
    std::string ocsf;      ///< a file
    int settle_seconds = 10;
    int most_per_hour = 20;
    int digest_minutes = 60;
    int hook_seconds = 60;
};

/// A key that is wrong. Its channel is off.
struct SettingsFault {
    std::string channel;  ///< "mail", "webhook", ...; empty: a general key, whose default holds
    std::string text;     ///< "/notify/webhook/url: must begin with https://"
};

/// Reads the section. Never throws.
Settings ReadSettings(const Json::Value& section, std::vector<SettingsFault>& faults);

/// The secret in `file`, without the white space around it. Empty when it cannot be used; `error`
/// says why: others may read or change it, or it is empty.
std::string ReadSecret(const std::string& file, std::string& error);

}  // namespace Notify
