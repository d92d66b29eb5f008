#include "feature_sentrel/policy_check/PolicyContentCheck.h"

#include <Poco/Net/IPAddress.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/net/IpUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <vector>

#include "base/BackupType.h"
#include "base/RsyncPaths.h"
#include "rsync/RsyncKeys.h"

namespace Engine {

namespace {

using SDK::JsonUtils;

constexpr std::size_t kMaxUrlLength = 10240;
constexpr std::size_t kMaxHashLength = 128;
constexpr std::size_t kDigestLength = 64;
constexpr std::size_t kMaxHostName = 253;
constexpr int kMaxPort = 65535;
constexpr int kHighestBackupType = kRemoteByOthers;

bool IsHostName(const std::string& text) {
    if (text.empty() || text.size() > kMaxHostName || text.front() == '-') return false;
    const bool plain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '.';
    });
    // A name of digits and dots alone is an address with a typing error.
    return plain && text.find("..") == std::string::npos && text.front() != '.' &&
           text.find_first_not_of("0123456789.") != std::string::npos;
}

/// rsync accepts as a server: an IPv4 address, a host name, or an IPv6 address in brackets.
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

bool IsPort(int port, int lowest) {
    return port >= lowest && port <= kMaxPort;
}

void CheckUrl(const std::string& url, const std::string& place, PolicyFindings& findings) {
    static constexpr std::array<const char*, 3> kSchemes = {"http://", "https://", "file:"};
    if (std::none_of(kSchemes.begin(), kSchemes.end(), [&url](const char* scheme) {
            return SDK::StrUtils::BeginsWith(url, scheme);
        })) {
        findings.Warning(place,
                         "the download will fail: the URL must begin with http://, "
                         "https:// or file:");
    }
}

void CheckHash(const std::string& hash, const std::string& place, PolicyFindings& findings) {
    const bool hex = hash.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (!hex || hash.size() != kDigestLength) {
        findings.Warning(place,
                         "the download will fail: a SHA-256 digest is 64 lower-case "
                         "hexadecimal digits");
    }
}

/// True when the text can be checked further.
bool CheckSourceText(const std::string& text, std::size_t longest, RsyncSource use,
                     const std::string& place, PolicyFindings& findings) {
    if (text.empty() && use == RsyncSource::kOptional) {
        findings.Warning(place,
                         "is missing: this host downloads no rsync, and uses the one in bin/");
    } else if (text.empty()) {
        findings.Error(place, "is missing: this host reads the key of this name");
    } else if (text.size() > longest && use == RsyncSource::kRequired) {
        findings.Error(place, "is longer than " + std::to_string(longest) + " characters");
    } else {
        return true;
    }
    return false;
}

/// The rsync daemon reads the value from a line of its configuration.
bool FitsConfLine(const std::string& path) {
    return std::none_of(path.begin(), path.end(), [](unsigned char c) { return c < ' '; }) &&
           path.front() != ' ' && path.back() != ' ' && path.back() != '\\' &&
           path.find('%') == std::string::npos;
}

/// The path itself, or its nearest ancestor that exists, is a directory. A link that leads nowhere
/// prevents that.
bool CanBeDirectory(std::filesystem::path path) {
    std::error_code error;
    if (!path.has_filename() && path.has_relative_path()) path = path.parent_path();
    while (!std::filesystem::exists(std::filesystem::symlink_status(path, error)) &&
           path.has_relative_path()) {
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

/// The address on which this host listens.
void CheckOwnAddress(const std::string& address, const std::string& place,
                     PolicyFindings& findings) {
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

/// Only a warning: the password of that role may be set later.
void CheckPassword(const std::string& role, const std::string& place, PolicyFindings& findings) {
    const std::string file = RsyncPaths::Secrets(SDK::PathUtils::GetInstallationPath(), role);
    std::error_code error;
    if (std::filesystem::exists(file, error)) return;
    findings.Warning(place, "no password is set yet: use morvanectl secret set " + role);
}

}  // namespace

void CheckOsType(const Json::Value& content, const std::string& pointer, PolicyFindings& findings) {
    if (JsonUtils::GetIntValue(content, "os_type", 1) == 0) return;
    findings.Error(PointerTo(pointer, "os_type"), "must be there and be 0 (Linux)");
}

void CheckRsyncSource(const Json::Value& content, const std::string& pointer, RsyncSource use,
                      PolicyFindings& findings) {
    const RsyncKeys keys = RsyncKeys::OfThisHost();
    const std::string url = JsonUtils::GetStringValue(content, keys.url.c_str(), "");
    const std::string hash = JsonUtils::GetStringValue(content, keys.hash.c_str(), "");
    const std::string url_place = PointerTo(pointer, keys.url);
    const std::string hash_place = PointerTo(pointer, keys.hash);
    if (CheckSourceText(url, kMaxUrlLength, use, url_place, findings)) {
        CheckUrl(url, url_place, findings);
    }
    if (CheckSourceText(hash, kMaxHashLength, use, hash_place, findings)) {
        CheckHash(hash, hash_place, findings);
    }
}

void CheckRemoteBackup(const Json::Value& content, const std::string& pointer,
                       PolicyFindings& findings) {
    if (!IsPort(JsonUtils::GetIntValue(content, "backup_port", 0), 0)) {
        findings.Warning(PointerTo(pointer, "backup_port"),
                         "is no port, 0 to 65535: no copy reaches the backup server");
    }
    const int type = JsonUtils::GetIntValue(content, "backup_type", 0);
    if (type < 0 || type > kHighestBackupType) {
        findings.Warning(PointerTo(pointer, "backup_type"),
                         "unknown backup type, it is taken as 0 (local backup only)");
    } else if (!MakesLocalCopies(type)) {
        findings.Warning(PointerTo(pointer, "backup_type"),
                         "with this backup type no backup copy is made on this host");
    }
    if (type != kLocalAndRemote) return;
    CheckPassword("client", PointerTo(pointer, "backup_type"), findings);
    const std::string address = JsonUtils::GetStringValue(content, "backup_addr", "");
    if (!IsServerAddress(address)) {
        findings.Warning(PointerTo(pointer, "backup_addr"),
                         "no copy reaches a backup server: it must be an IPv4 address, a host "
                         "name, or an IPv6 address in brackets");
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
    if (!IsPort(JsonUtils::GetIntValue(content, "backupserver_port", 0), 1)) {
        findings.Error(PointerTo(pointer, "backupserver_port"), "must be a port, 1 to 65535");
    }
    CheckReceivingPath(JsonUtils::GetStringValue(content, "backupserver_path", ""),
                       PointerTo(pointer, "backupserver_path"), findings);
    CheckOwnAddress(JsonUtils::GetStringValue(content, "backupserver_ip", ""),
                    PointerTo(pointer, "backupserver_ip"), findings);
}

}  // namespace Engine
