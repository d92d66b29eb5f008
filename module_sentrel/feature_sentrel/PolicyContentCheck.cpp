#include <Poco/Net/IPAddress.h>
#include <PolicyContentCheck.h>
#include <RsyncKeys.h>
#include <sdk/IpUtils.h>
#include <sdk/JsonUtils.h>
#include <sdk/PathUtils.h>
#include <sdk/PlaceTrust.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <vector>

namespace Engine {

namespace {

using SDK::JsonUtils;

constexpr std::size_t kMaxUrlLength = 10240;
constexpr std::size_t kDigestLength = 64;
constexpr std::size_t kMaxHostName = 253;
constexpr int kMaxPort = 65535;
constexpr int kLocalAndRemote = 2;
constexpr int kHighestBackupType = 3;

bool BeginsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool IsHostName(const std::string& text) {
    if (text.empty() || text.size() > kMaxHostName || text.front() == '-') return false;
    const bool plain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '.';
    });
    // A name of digits and dots alone is an address with a typing error.
    return plain && text.find("..") == std::string::npos && text.front() != '.' &&
           text.find_first_not_of("0123456789.") != std::string::npos;
}

/// What rsync takes for a server: an IPv4 address, a host name, or an IPv6 address in brackets.
bool IsServerAddress(const std::string& text) {
    Poco::Net::IPAddress address;
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        return Poco::Net::IPAddress::tryParse(text.substr(1, text.size() - 2), address) &&
               address.family() == Poco::Net::IPAddress::IPv6;
    }
    return (Poco::Net::IPAddress::tryParse(text, address) &&
            address.family() == Poco::Net::IPAddress::IPv4) ||
           IsHostName(text);
}

void CheckPort(const Json::Value& content, const char* key, int lowest, const std::string& pointer,
               PolicyFindings& findings) {
    if (content.isMember(key) && !content[key].isInt()) return;
    const int port = JsonUtils::GetIntValue(content, key, 0);
    if (port >= lowest && port <= kMaxPort) return;
    findings.Error(PointerTo(pointer, key),
                   "must be a port, " + std::to_string(lowest) + " to 65535");
}

void CheckUrl(const std::string& url, const std::string& place, PolicyFindings& findings) {
    static constexpr std::array<const char*, 3> kSchemes = {"http://", "https://", "file:"};
    if (url.empty()) {
        findings.Error(place, "is missing: this host downloads rsync from the URL under this key");
    } else if (url.size() > kMaxUrlLength) {
        findings.Error(place, "is longer than 10240 characters");
    } else if (std::none_of(kSchemes.begin(), kSchemes.end(),
                            [&url](const char* scheme) { return BeginsWith(url, scheme); })) {
        findings.Error(place, "must begin with http://, https:// or file:");
    }
}

void CheckHash(const std::string& hash, const std::string& place, PolicyFindings& findings) {
    if (hash.empty()) {
        findings.Error(place, "is missing: this host checks rsync by the digest under this key");
        return;
    }
    const bool hex = hash.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (!hex || hash.size() != kDigestLength) {
        findings.Error(place, "must be a SHA-256 digest: 64 lower-case hexadecimal digits");
    }
}

bool IsWrongString(const Json::Value& content, const std::string& key) {
    return content.isMember(key) && !content[key].isString();
}

/// The rsync daemon reads the value from a line of its configuration.
bool FitsConfLine(const std::string& path) {
    return std::none_of(path.begin(), path.end(), [](unsigned char c) { return c < ' '; }) &&
           path.front() != ' ' && path.back() != ' ' && path.back() != '\\' &&
           path.find('%') == std::string::npos;
}

/// The nearest ancestor that exists, or the path itself, is a directory.
bool CanBeDirectory(std::filesystem::path path) {
    std::error_code error;
    while (!std::filesystem::exists(path, error) && path.has_relative_path()) {
        path = path.parent_path();
    }
    return std::filesystem::is_directory(path, error);
}

void CheckReceivingPath(const std::string& path, const std::string& place,
                        PolicyFindings& findings) {
    if (path.empty() || path.front() != '/') {
        findings.Error(place, "must be an absolute path");
    } else if (!FitsConfLine(path)) {
        findings.Error(place,
                       "the daemon's configuration cannot carry this path: no control characters, "
                       "no \"%\", no blank at either end, no backslash at the end");
    } else if (!CanBeDirectory(path)) {
        findings.Error(place, "is not a directory and cannot be made one");
    }
}

/// rsync's password of that role may be handed in later.
void CheckPassword(const std::string& role, const std::string& place, PolicyFindings& findings) {
    const std::string file =
        SDK::PathUtils::GetInstallationPath() + "conf/rsync_" + role + ".secrets";
    std::error_code error;
    if (std::filesystem::exists(file, error)) return;
    findings.Warning(place, "no password is set yet: use morvanectl secret set " + role);
}

}  // namespace

void CheckOsType(const Json::Value& content, const std::string& pointer, PolicyFindings& findings) {
    if (content.isMember("os_type") && !content["os_type"].isInt()) return;
    if (JsonUtils::GetIntValue(content, "os_type", 1) == 0) return;
    findings.Error(PointerTo(pointer, "os_type"), "must be there and be 0 (Linux)");
}

void CheckRsyncSource(const Json::Value& content, const std::string& pointer,
                      PolicyFindings& findings) {
    const RsyncKeys keys = RsyncKeys::OfThisHost();
    if (!IsWrongString(content, keys.url)) {
        CheckUrl(JsonUtils::GetStringValue(content, keys.url.c_str(), ""),
                 PointerTo(pointer, keys.url), findings);
    }
    if (!IsWrongString(content, keys.hash)) {
        CheckHash(JsonUtils::GetStringValue(content, keys.hash.c_str(), ""),
                  PointerTo(pointer, keys.hash), findings);
    }
}

void CheckRemoteBackup(const Json::Value& content, const std::string& pointer,
                       PolicyFindings& findings) {
    CheckPort(content, "backup_port", 0, pointer, findings);
    const int type = JsonUtils::GetIntValue(content, "backup_type", 0);
    if (type < 0 || type > kHighestBackupType) {
        findings.Warning(PointerTo(pointer, "backup_type"),
                         "unknown backup type, it is taken as 0 (local backup only)");
    } else if (type == 1 || type == kHighestBackupType) {
        findings.Warning(PointerTo(pointer, "backup_type"),
                         "with this backup type no backup copy is made on this host");
    }
    if (type == kLocalAndRemote) {
        CheckPassword("client", PointerTo(pointer, "backup_type"), findings);
    }
    if (IsWrongString(content, "backup_addr")) return;
    const std::string address = JsonUtils::GetStringValue(content, "backup_addr", "");
    const std::string place = PointerTo(pointer, "backup_addr");
    if (address.empty()) {
        if (type == kLocalAndRemote) findings.Error(place, "is missing: backup_type is 2");
    } else if (!IsServerAddress(address)) {
        findings.Error(place,
                       "must be an IPv4 address, a host name, or an IPv6 address in brackets");
    }
}

void CheckReceivingPlace(const Json::Value& content, const std::string& pointer,
                         PolicyFindings& findings) {
    const std::string path = JsonUtils::GetStringValue(content, "backupserver_path", "");
    if (path.empty() || path.front() != '/') return;
    const std::string place = PointerTo(pointer, "backupserver_path");
    std::string why = SDK::PlaceTrust::WhyWritable(path);
    if (!why.empty()) {
        findings.Error(place, "is not safe from other users: " + why);
        return;
    }
    why = SDK::PlaceTrust::WhyReachable(path);
    if (!why.empty()) findings.Warning(place, "copies keep their owners: " + why);
}

void CheckReceivingSide(const Json::Value& content, const std::string& pointer,
                        PolicyFindings& findings) {
    CheckPassword("server", pointer, findings);
    CheckReceivingPlace(content, pointer, findings);
    CheckPort(content, "backupserver_port", 1, pointer, findings);
    if (!IsWrongString(content, "backupserver_path")) {
        CheckReceivingPath(JsonUtils::GetStringValue(content, "backupserver_path", ""),
                           PointerTo(pointer, "backupserver_path"), findings);
    }
    if (IsWrongString(content, "backupserver_ip")) return;
    const std::string address = JsonUtils::GetStringValue(content, "backupserver_ip", "");
    const std::string place = PointerTo(pointer, "backupserver_ip");
    Poco::Net::IPAddress parsed;
    std::vector<std::string> own;
    SDK::IpUtils::GetLocalIpList(own, true);
    if (!Poco::Net::IPAddress::tryParse(address, parsed)) {
        findings.Error(place, "must be an IP address of this host");
    } else if (std::find(own.begin(), own.end(), address) == own.end()) {
        findings.Error(place, "this host has no address " + address);
    } else if (parsed.isLoopback()) {
        findings.Warning(place, "no other host can reach a loopback address");
    }
    if (parsed.family() == Poco::Net::IPAddress::IPv6) {
        findings.Warning(place,
                         "the daemon's configuration admits IPv4 addresses only: it refuses "
                         "every host that connects by IPv6");
    }
}

}  // namespace Engine
