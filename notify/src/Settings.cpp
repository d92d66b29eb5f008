// Knows the keys of the section "notify". It must not send anything.
#include "notify/Settings.h"

#include <Poco/Exception.h>
#include <Poco/URI.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <utility>

namespace Notify {

using SDK::PathUtils;
using SDK::StrUtils;

namespace {

constexpr char kDevLog[] = "/dev/log";
constexpr char kJournal[] = "/run/systemd/journal/socket";
constexpr char kOcsfFile[] = "log/ocsf.jsonl";
constexpr long kMostSecret = 4096;
constexpr int kMostSeconds = 24 * 3600;
constexpr std::size_t kMostAddress = 254;

/// Reads the keys of one channel, or the general ones, and notes what is wrong.
class Keys {
  public:
    Keys(Json::Value object, std::string channel, std::vector<SettingsFault>& faults)
        : object_(std::move(object)), channel_(std::move(channel)), faults_(faults) {
        if (!object_.isObject()) {
            if (!object_.isNull()) Fail("", "must be an object");
            object_ = Json::Value(Json::objectValue);
        }
    }

    void AllowOnly(std::initializer_list<const char*> names) {
        for (const std::string& name : object_.getMemberNames()) {
            if (std::find(names.begin(), names.end(), name) == names.end()) Fail(name, "unknown");
        }
    }

    const Json::Value& At(const char* name) const { return object_[name]; }

    void Take(const char* name, std::string& value) {
        const Json::Value& given = At(name);
        if (given.isNull()) return;
        if (!given.isString()) return Fail(name, "must be a string");
        value = given.asString();
        const bool is_line = std::none_of(value.begin(), value.end(),
                                          [](unsigned char c) { return c < 0x20 || c == 0x7f; });
        if (!is_line) Fail(name, "must not have control characters");
    }

    void Take(const char* name, int least, int most, int& value) {
        const Json::Value& given = At(name);
        if (given.isNull()) return;
        if (!given.isInt() || given.asInt() < least || given.asInt() > most) {
            return Fail(name,
                        StrUtils::Format("must be a whole number from %d to %d", least, most));
        }
        value = given.asInt();
    }

    void Fail(const std::string& name, const std::string& what) {
        std::string place = "/notify";
        if (!channel_.empty()) place += "/" + channel_;
        if (!name.empty()) place += "/" + name;
        faults_.push_back({channel_, place + ": " + what});
        is_good_ = false;
    }

    bool IsGood() const { return is_good_; }

  private:
    Json::Value object_;
    const std::string channel_;
    std::vector<SettingsFault>& faults_;
    bool is_good_ = true;
};

bool IsLoopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host == "[::1]" ||
           StrUtils::BeginsWith(host, "127.");
}

/// Plain HTTP would show alarms, and let others answer for the receiver.
void CheckUrl(Keys& keys, const std::string& url) {
    try {
        const Poco::URI parsed(url);
        const bool is_safe = parsed.getScheme() == "https" ||
                             (parsed.getScheme() == "http" && IsLoopback(parsed.getHost()));
        if (is_safe && !parsed.getHost().empty()) return;
    } catch (const Poco::Exception&) {
    }
    keys.Fail("url", "must begin with https:// (or http:// for this host itself)");
}

/// Only what no mail system takes for an option, a list or a header.
bool IsAddress(const std::string& text) {
    return !text.empty() && text.size() <= kMostAddress && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) {
               return c > 0x20 && c < 0x7f && std::strchr("<>,;:\"'\\()|`$&", c) == nullptr;
           });
}

void Resolve(std::string& path) {
    if (!path.empty()) path = PathUtils::BelowInstallation(path);
}

Settings::Mail ReadMail(const Json::Value& section, std::vector<SettingsFault>& faults) {
    Keys keys(section, "mail", faults);
    keys.AllowOnly({"to", "from", "sendmail"});
    Settings::Mail mail;
    keys.Take("from", mail.from);
    keys.Take("sendmail", mail.sendmail);
    if (!mail.from.empty() && !IsAddress(mail.from)) keys.Fail("from", "is no mail address");
    if (mail.sendmail.empty() || mail.sendmail.front() != '/') {
        keys.Fail("sendmail", "must be an absolute path");
    }
    if (keys.At("to").isString()) {
        mail.to = {keys.At("to").asString()};
    } else if (keys.At("to").isArray()) {
        for (const Json::Value& one : keys.At("to")) {
            mail.to.push_back(one.isString() ? one.asString() : "");
        }
    } else if (!keys.At("to").isNull()) {
        keys.Fail("to", "must be a mail address or a list of them");
    }
    if (!std::all_of(mail.to.begin(), mail.to.end(), IsAddress)) {
        keys.Fail("to", "must have plain mail addresses, such as admin@example.org");
    }
    return keys.IsGood() ? mail : Settings::Mail();
}

Settings::Webhook ReadWebhook(const Json::Value& section, std::vector<SettingsFault>& faults) {
    Keys keys(section, "webhook", faults);
    keys.AllowOnly({"url", "secret_file", "ca_file"});
    Settings::Webhook webhook;
    keys.Take("url", webhook.url);
    keys.Take("secret_file", webhook.secret_file);
    keys.Take("ca_file", webhook.ca_file);
    if (!webhook.url.empty()) CheckUrl(keys, webhook.url);
    Resolve(webhook.secret_file);
    Resolve(webhook.ca_file);
    std::string error;
    if (!webhook.secret_file.empty() && ReadSecret(webhook.secret_file, error).empty()) {
        keys.Fail("secret_file", error);
    }
    return keys.IsGood() ? webhook : Settings::Webhook();
}

Settings::Heartbeat ReadHeartbeat(const Json::Value& section, std::vector<SettingsFault>& faults) {
    Keys keys(section, "heartbeat", faults);
    keys.AllowOnly({"url", "ca_file", "seconds"});
    Settings::Heartbeat heartbeat;
    keys.Take("url", heartbeat.url);
    keys.Take("ca_file", heartbeat.ca_file);
    keys.Take("seconds", 10, kMostSeconds, heartbeat.seconds);
    if (!heartbeat.url.empty()) CheckUrl(keys, heartbeat.url);
    Resolve(heartbeat.ca_file);
    return keys.IsGood() ? heartbeat : Settings::Heartbeat();
}

/// true: `preset`; a string: that path; false or nothing: off.
std::string ReadPlace(const Json::Value& section, const char* name, const char* preset,
                      std::vector<SettingsFault>& faults) {
    const Json::Value& given = section[name];
    if (given.isNull() || given.isBool()) {
        return given.isBool() && given.asBool() ? PathUtils::BelowInstallation(preset) : "";
    }
    if (given.isString() && !given.asString().empty() &&
        given.asString().find('\0') == std::string::npos) {
        return PathUtils::BelowInstallation(given.asString());
    }
    faults.push_back({name, "/notify/" + std::string(name) + ": must be true, false or a path"});
    return "";
}

}  // namespace

Settings ReadSettings(const Json::Value& section, std::vector<SettingsFault>& faults) {
    Settings settings;
    faults.clear();
    if (section.isNull()) return settings;
    Keys keys(section, "", faults);
    if (!keys.IsGood()) return settings;
    keys.AllowOnly({"mail", "webhook", "heartbeat", "syslog", "journald", "ocsf", "settle_seconds",
                    "most_per_hour", "digest_minutes", "hook_seconds"});
    settings.mail = ReadMail(section["mail"], faults);
    settings.webhook = ReadWebhook(section["webhook"], faults);
    settings.heartbeat = ReadHeartbeat(section["heartbeat"], faults);
    settings.syslog = ReadPlace(section, "syslog", kDevLog, faults);
    settings.journald = ReadPlace(section, "journald", kJournal, faults);
    settings.ocsf = ReadPlace(section, "ocsf", kOcsfFile, faults);
    keys.Take("settle_seconds", 0, 60, settings.settle_seconds);
    keys.Take("most_per_hour", 1, 3600, settings.most_per_hour);
    keys.Take("digest_minutes", 1, 24 * 60, settings.digest_minutes);
    keys.Take("hook_seconds", 1, 3600, settings.hook_seconds);
    return settings;
}

std::string ReadSecret(const std::string& file, std::string& error) {
    struct stat info {};
    error = SDK::PlaceTrust::WhyWritable(file);
    if (!error.empty()) return "";
    std::string secret;
    if (::stat(file.c_str(), &info) != 0 ||
        SDK::FileUtils::ReadFile(file, secret, kMostSecret) != 0) {
        error = file + " cannot be read: " + std::strerror(errno);
        return "";
    }
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        error = file + " can be read by others; make it mode 0600";
        return "";
    }
    StrUtils::Trim(secret);
    if (secret.empty()) error = file + " is empty";
    return secret;
}

}  // namespace Notify
