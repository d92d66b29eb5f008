#include "sdk/host/SystemUtils.h"

#include <sys/utsname.h>

#include <map>
#include <sstream>

#include "sdk/files/FileUtils.h"
#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

constexpr long kReleaseFileSize = 64 * 1024;

/// Removes the quotes of an os-release value and the backslashes that escape within them.
std::string Unquote(const std::string& value) {
    if (value.size() < 2 || (value.front() != '"' && value.front() != '\'')) return value;
    std::string text;
    for (std::size_t i = 1; i < value.size() && value[i] != value.front(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) ++i;
        text += value[i];
    }
    return text;
}

std::map<std::string, std::string> ParseRelease(const std::string& text) {
    std::map<std::string, std::string> fields;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        StrUtils::Trim(line);
        const std::size_t equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string::npos) continue;
        fields[line.substr(0, equals)] = Unquote(line.substr(equals + 1));
    }
    return fields;
}

/// The family of one ID; kUnknown for an unknown one.
unsigned int FamilyOf(const std::string& id) {
    static const std::map<std::string, unsigned int> kFamilies = {
        {"debian", SystemUtils::kDebian},
        {"ubuntu", SystemUtils::kUbuntu},
        {"rhel", SystemUtils::kRedHat},
        {"fedora", SystemUtils::kRedHat},
        {"centos", SystemUtils::kRedHat},
        {"rocky", SystemUtils::kRedHat},
        {"almalinux", SystemUtils::kRedHat},
        {"ol", SystemUtils::kRedHat},
        {"suse", SystemUtils::kSuse},
        {"sles", SystemUtils::kSuse},
        {"opensuse", SystemUtils::kSuse},
        {"opensuse-leap", SystemUtils::kSuse},
        {"opensuse-tumbleweed", SystemUtils::kSuse},
    };
    const auto found = kFamilies.find(id);
    return found == kFamilies.end() ? static_cast<unsigned int>(SystemUtils::kUnknown)
                                    : found->second;
}

unsigned int OwnFamily(const std::string& version_id) {
    const std::string major = version_id.substr(0, version_id.find('.'));
    if (major == "1") return SystemUtils::kOwnFamilyA;
    if (major == "2") return SystemUtils::kOwnFamilyB;
    return SystemUtils::kOther;
}

}  // namespace

SystemUtils* SystemUtils::GetInstance() {
    static SystemUtils instance;
    return &instance;
}

std::string SystemUtils::GetOsArch() const {
    utsname names{};
    return ::uname(&names) == 0 ? names.machine : "";
}

unsigned int SystemUtils::GetOsName() const {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::string text;
        if (FileUtils::ReadFile(path, text, kReleaseFileSize) == 0) return OsNameFromRelease(text);
    }
    return kUnknown;
}

unsigned int SystemUtils::OsNameFromRelease(const std::string& os_release_text) {
    std::map<std::string, std::string> fields = ParseRelease(os_release_text);
    const std::string& id = fields["ID"];
    if (id.empty()) return kUnknown;
    if (id == "morvane") return OwnFamily(fields["VERSION_ID"]);
    std::istringstream candidates(id + " " + fields["ID_LIKE"]);
    for (std::string candidate; candidates >> candidate;) {
        const unsigned int family = FamilyOf(candidate);
        if (family != kUnknown) return family;
    }
    return kOther;
}

}  // namespace SDK
