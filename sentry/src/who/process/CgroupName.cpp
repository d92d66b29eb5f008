#include "who/process/CgroupName.h"

#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <array>

namespace Sentry {

using SDK::StrUtils;

namespace {

constexpr std::size_t kIdLength = 64;
constexpr std::size_t kShownId = 12;

/// What container managers put before the id in the name of a scope.
constexpr std::array<std::string_view, 5> kScopes{"docker-", "libpod-", "cri-containerd-", "crio-",
                                                  "machine-"};
/// The folders whose subfolders are containers.
constexpr std::array<std::string_view, 4> kFolders{"docker", "lxc", "lxc.payload", "libpod_parent"};

bool IsId(std::string_view name) {
    return name.size() == kIdLength &&
           name.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string Shown(std::string_view id) {
    return std::string(IsId(id) ? id.substr(0, kShownId) : id);
}

std::string ContainerOf(std::string_view parent, std::string_view name) {
    constexpr std::string_view kScope = ".scope";
    constexpr std::string_view kLxc = "lxc.payload.";
    if (IsId(name)) return Shown(name);
    if (StrUtils::BeginsWith(name, kLxc)) return std::string(name.substr(kLxc.size()));
    if (std::find(kFolders.begin(), kFolders.end(), parent) != kFolders.end()) return Shown(name);
    if (!StrUtils::EndsWith(name, kScope)) return "";
    name.remove_suffix(kScope.size());
    for (const std::string_view prefix : kScopes) {
        if (StrUtils::BeginsWith(name, prefix)) return Shown(name.substr(prefix.size()));
    }
    return "";
}

}  // namespace

CgroupName NameOfCgroup(std::string_view path) {
    CgroupName found;
    std::string_view parent;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view name = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (name.empty()) continue;
        const std::string container = ContainerOf(parent, name);
        if (!container.empty()) found.container = container;
        if (StrUtils::EndsWith(name, ".service") || StrUtils::EndsWith(name, ".scope")) {
            found.unit = std::string(name);
        }
        parent = name;
    }
    return found;
}

}  // namespace Sentry
