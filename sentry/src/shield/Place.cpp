// Names come from the kernel, contents of the tree are not opened here.
#include "shield/Place.h"

#include <limits.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <array>

namespace Sentry {

namespace {

/// The name by which it was opened; empty when it is too long.
std::string NameOf(int file) {
    static constexpr char kUnlinked[] = " (deleted)";
    std::array<char, PATH_MAX> text{};
    const ssize_t length =
        ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), text.data(), text.size());
    if (length <= 0 || static_cast<std::size_t>(length) == text.size()) return "";
    std::string name(text.data(), static_cast<std::size_t>(length));
    struct stat info {};
    if (::fstat(file, &info) == 0 && info.st_nlink == 0 &&
        SDK::StrUtils::EndsWith(name, kUnlinked)) {
        name.resize(name.size() - (sizeof(kUnlinked) - 1));
    }
    return name;
}

bool IsSame(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

Place Place::Of(const ShieldRule& rule, const SDK::PathAnchor& root, int file,
                const struct stat& info) {
    const std::string name = NameOf(file);
    if (name.empty()) return {};
    if (SDK::StrUtils::BeginsWith(name, rule.real_path)) {
        // Directories that are left out have no marks: the file was in another one.
        if (rule.IsLeftOut(SDK::PathUtils::GetDirFromPath(name) + "/")) return {};
        if (rule.IsIgnored(name)) return {Kind::kIgnored};
        return {Kind::kInside, name.substr(rule.real_path.size())};
    }
    // A container may know the directory by another name. The end of the path is the same.
    for (std::size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1)) {
        const std::string below = name.substr(at + 1);
        struct stat found {};
        if (below.empty() || root.Stat(below, found) != 0 || !IsSame(found, info)) continue;
        if (rule.IsIgnored(rule.real_path + below)) return {Kind::kIgnored};
        return {Kind::kInside, below};
    }
    return {};
}

}  // namespace Sentry
