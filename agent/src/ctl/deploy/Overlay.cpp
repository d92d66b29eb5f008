// Owns the mounts of a deploy. It must not run the command (CommandRun does) nor read what was
// changed. Every place is held open before it is used, since the site's user can change names.
#include "ctl/deploy/Overlay.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathAnchor.h>
#include <sdk/files/PathUtils.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr long kOverlayMagic = 0x794c7630;
constexpr long kMostMountBytes = 64L * 1024 * 1024;

std::string PlaceOf(const SDK::FileDescriptor& held) {
    return "/proc/self/fd/" + std::to_string(held.Get());
}

std::string Failed(const std::string& what) {
    return what + ": " + std::strerror(errno) + ".";
}

bool IsWithin(const std::string& path, const std::string& directory) {
    return path.compare(0, directory.size(), directory) == 0 &&
           (path.size() == directory.size() || path[directory.size()] == '/');
}

/// The kernel writes blanks and backslashes in names as "\040".
std::string Unescaped(const std::string& text) {
    constexpr int kOctal = 8;
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain += static_cast<char>(std::strtol(text.substr(i + 1, 3).c_str(), nullptr, kOctal));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

std::string Trimmed(std::string subdirectory) {
    while (!subdirectory.empty() && subdirectory.front() == '/') subdirectory.erase(0, 1);
    while (!subdirectory.empty() && subdirectory.back() == '/') subdirectory.pop_back();
    return subdirectory;
}

/// Opens `below`, and makes it when only it is missing, with the owner and mode of `live`.
SDK::FileDescriptor MadeBelow(const SDK::PathAnchor& anchor, const std::string& below,
                              const SDK::FileDescriptor& live) {
    SDK::FileDescriptor there = anchor.OpenDirectory(below);
    struct stat info {};
    if (there.IsOpen() || ::fstat(live.Get(), &info) != 0) return there;
    const SDK::PathAnchor::Entry entry = anchor.OpenParent(below);
    if (!entry.IsOpen() || ::mkdirat(entry.directory.Get(), entry.name.c_str(), S_IRWXU) != 0) {
        return {};
    }
    there = anchor.OpenDirectory(below);
    if (!there.IsOpen() || ::fchown(there.Get(), info.st_uid, info.st_gid) != 0) return {};
    ::fchmod(there.Get(), info.st_mode & ALLPERMS);
    return there;
}

}  // namespace

std::string Overlay::ForeignMount(const OverlayPlan& plan) {
    std::string text;
    if (SDK::FileUtils::ReadFile("/proc/self/mountinfo", text, kMostMountBytes) != 0) return "";
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        for (int i = 0; i < 5; ++i) words >> word;  // the fifth is the mount point
        std::string point = Unescaped(word);
        if (point == plan.root || !IsWithin(point, plan.root)) continue;
        bool is_excluded = false;
        for (const std::string& one : plan.subdirectories) {
            is_excluded = is_excluded || IsWithin(point, plan.root + "/" + Trimmed(one));
        }
        if (!is_excluded) return point;
    }
    return "";
}

std::string Overlay::Mount(const std::string& place) const {
    const SDK::FileDescriptor lower(::open(plan_.copies.c_str(), kDirectoryFlags));
    const SDK::FileDescriptor upper(::open((plan_.directory + "/upper").c_str(), kDirectoryFlags));
    const SDK::FileDescriptor work(::open((plan_.directory + "/work").c_str(), kDirectoryFlags));
    const SDK::FileDescriptor at(::open(place.c_str(), kDirectoryFlags));
    if (!lower.IsOpen() || !upper.IsOpen() || !work.IsOpen() || !at.IsOpen()) {
        return Failed("The directories of the deploy cannot be opened");
    }
    // userxattr: the marks can be read without further rights. No path is part of the options.
    const std::string options = "userxattr,lowerdir=" + PlaceOf(lower) +
                                ",upperdir=" + PlaceOf(upper) + ",workdir=" + PlaceOf(work);
    if (::mount("overlay", PlaceOf(at).c_str(), "overlay", 0, options.c_str()) == 0) return "";
    return Failed("An overlay cannot be mounted here") +
           " Use morvanectl pause and resume instead.";
}

std::string Overlay::MountAt(const std::string& place) const {
    const Excluded excluded = OpenExcluded();
    std::string problem = Mount(place);
    if (!problem.empty()) return problem;
    const auto overlay = SDK::PathAnchor::Open(place);
    struct statfs info {};
    if (overlay == nullptr || ::fstatfs(overlay->Descriptor(), &info) != 0 ||
        info.f_type != kOverlayMagic) {
        return Printable(place) + " was moved meanwhile.";
    }
    return ShowExcluded(place, excluded);
}

std::string Overlay::ShowExcluded(const std::string& place, const Excluded& excluded) const {
    const auto overlay = SDK::PathAnchor::Open(place);
    if (overlay == nullptr) return Failed(Printable(place) + " cannot be opened");
    for (const auto& [below, source] : excluded) {
        const SDK::FileDescriptor at = MadeBelow(*overlay, below, source);
        if (!at.IsOpen()) continue;  // the directory above it is not approved
        if (::mount(PlaceOf(source).c_str(), PlaceOf(at).c_str(), nullptr, MS_BIND | MS_REC,
                    nullptr) != 0) {
            return Failed("The excluded directory " + Printable(below) + " cannot be shown");
        }
    }
    return "";
}

/// To be called while the site is still to be seen.
Overlay::Excluded Overlay::OpenExcluded() const {
    Excluded excluded;
    const auto live = SDK::PathAnchor::Open(plan_.root);
    if (live == nullptr) return excluded;
    for (const std::string& one : plan_.subdirectories) {
        const std::string below = Trimmed(one);
        if (below.empty()) continue;
        SDK::FileDescriptor opened = live->OpenDirectory(below);
        if (opened.IsOpen()) excluded[below] = std::move(opened);
    }
    return excluded;
}

std::string Overlay::Unmount(const std::string& place) const {
    DetachExcluded(place);
    if (::umount2(place.c_str(), UMOUNT_NOFOLLOW) == 0 || errno == EINVAL) return "";
    if (errno != EBUSY) return Failed("The overlay cannot be unmounted");
    ShowExcluded(place, OpenExcluded());
    return "Somebody still uses an object of the deploy.";
}

/// These show the site itself, so nothing of them is at stake.
void Overlay::DetachExcluded(const std::string& place) const {
    const auto overlay = SDK::PathAnchor::Open(place);
    for (auto one = plan_.subdirectories.rbegin(); one != plan_.subdirectories.rend(); ++one) {
        const std::string below = Trimmed(*one);
        if (below.empty() || overlay == nullptr) continue;
        const SDK::FileDescriptor shown = overlay->OpenDirectory(below);
        if (shown.IsOpen()) ::umount2(PlaceOf(shown).c_str(), MNT_DETACH);
    }
}

void Overlay::DetachTree() const {
    const std::string tree = plan_.directory + "/tree";
    while (::umount2(tree.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
    }
}

}  // namespace Ctl
