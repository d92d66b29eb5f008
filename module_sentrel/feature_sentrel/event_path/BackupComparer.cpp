// Compares changed files with their backup copies. It must not write, nor decide what is done about
// a deviation (the inotify task does). Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include "feature_sentrel/event_path/BackupComparer.h"

#include <fcntl.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "base/DirectoryListing.h"
#include "base/FileComparison.h"
#include "base/ModuleLogger.h"

namespace Engine {

namespace {

bool DigestOf(const SDK::PathAnchor::Entry& entry, std::string& digest) {
    return entry.IsOpen() && SDK::FileUtils::GetFileSha256(entry.directory.Get(), entry.name,
                                                           digest, kDigestLimit) == 0;
}

int Stat(const SDK::PathAnchor::Entry& object, struct stat& info) {
    return ::fstatat(object.directory.Get(), object.name.c_str(), &info,
                     AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
}

/// Without them somebody could give a page a capability, or himself access to a page, for good.
SDK::ExtendedAttributes Attributes(const SDK::PathAnchor::Entry& object, mode_t mode,
                                   unsigned kinds) {
    if (!object.IsOpen() || (!S_ISREG(mode) && !S_ISDIR(mode))) return {};
    return SDK::AttributeComparison::Read(object.directory.Get(), object.name, kinds);
}

constexpr std::size_t kMostNames = 8;

/// Whoever may set attributes chooses their names.
std::string Printable(std::string name) {
    const auto is_odd = [](unsigned char c) { return c <= ' ' || c > '~'; };
    std::replace_if(name.begin(), name.end(), is_odd, '?');
    return name;
}

std::string DifferenceText(const SDK::ExtendedAttributes& live,
                           const SDK::ExtendedAttributes& copy) {
    std::map<std::string, const char*> changes;
    for (const auto& [name, value] : live.values) {
        const auto kept = copy.values.find(name);
        if (kept == copy.values.end()) {
            changes[name] = "added:";
        } else if (kept->second != value) {
            changes[name] = "changed:";
        }
    }
    for (const auto& [name, value] : copy.values) {
        if (live.values.count(name) == 0) changes[name] = "removed:";
    }
    std::string text;
    std::size_t count = 0;
    for (const auto& [name, change] : changes) {
        if (++count > kMostNames) break;
        text += (text.empty() ? "" : " ") + (change + Printable(name));
    }
    if (count > kMostNames || (live.is_cut && !copy.is_cut)) text += " and more";
    return text.empty() ? "" : " xattr(" + text + ")";
}

}  // namespace

bool BackupComparer::Describe(const std::string& path, const std::string& copy_path, bool& exists,
                              BackupFileInfo& info) const {
    struct stat found {};
    const SDK::PathAnchor::Entry copy = rule_->Copy(path);
    if (!copy.IsOpen() || Stat(copy, found) != 0) {
        const int error = errno;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "file:%s  info:%d", copy_path, error);
        return true;
    }
    exists = true;
    info.size = found.st_size;
    info.mtime = found.st_mtime;
    info.mode = SDK::FileUtils::StModeToStr(found.st_mode);
    info.uid = found.st_uid;
    info.gid = found.st_gid;
    if (!S_ISREG(found.st_mode) && attribute_kinds_ == 0) return true;
    info.attribute_kinds = attribute_kinds_;
    info.extended = Attributes(copy, found.st_mode, attribute_kinds_);
    if (!S_ISREG(found.st_mode)) return true;
    if (::faccessat(copy.directory.Get(), copy.name.c_str(), R_OK, 0) == 0) {
        return true;
    }
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file %s sha256 failed.",
            SDK::PathUtils::WithoutTrailingSlash(copy_path));
    return false;
}

Deviation BackupComparer::Compare(const std::string& path, const BackupFileInfo& info) const {
    struct stat live {};
    if (rule_->StatLive(path, live) != 0) {
        return errno == ENOENT ? Deviation::kGone : Deviation::kUnreachable;
    }
    // The file system decides the size of a directory; no restore can make it equal.
    if (!S_ISDIR(live.st_mode) && live.st_size != info.size) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s size (%u) not matched with (%u). ", path,
                static_cast<unsigned int>(live.st_size), static_cast<unsigned int>(info.size));
        return Deviation::kSize;
    }
    if (live.st_mtime != info.mtime) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s mtime (%d) not matched with (%d). ", path,
                static_cast<int>(live.st_mtime), static_cast<int>(info.mtime));
        return Deviation::kTime;
    }
    const std::string mode = SDK::FileUtils::StModeToStr(live.st_mode);
    if (mode != info.mode) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s attr (%s) not matched with (%s). ", path, mode,
                info.mode);
        return Deviation::kMode;
    }
    const SDK::PathAnchor::Entry entry = rule_->Live(path);
    if (!S_ISDIR(live.st_mode) && !HasContentOfCopy(path, entry)) return Deviation::kContent;
    if (!HasOwnerOfCopy(path, live, info)) return Deviation::kOwner;
    if (!SDK::AttributeComparison::Differ(Attributes(entry, live.st_mode, info.attribute_kinds),
                                          info.extended)) {
        return Deviation::kNone;
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s extended attributes not matched. ", path);
    return Deviation::kAttributes;
}

/// Nearly the last check: size or time show most changes, and a large page must not wait for
/// digests.
bool BackupComparer::HasContentOfCopy(const std::string& path,
                                      const SDK::PathAnchor::Entry& live) const {
    std::string digest;
    std::string copy_digest;
    DigestOf(live, digest);  // unreadable: an empty digest
    if (!DigestOf(rule_->Copy(path), copy_digest)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file %s sha256 failed.", path);
    } else if (digest == copy_digest) {
        return true;
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s sha256 (%s) not matched with (%s). ", path, digest,
            copy_digest);
    return false;
}

// Without it a chown would pass. When the agent is not root it can neither keep nor restore owners:
// its copies are its own.
bool BackupComparer::HasOwnerOfCopy(const std::string& path, const struct stat& live,
                                    const BackupFileInfo& info) {
    if (::geteuid() != 0 || (live.st_uid == info.uid && live.st_gid == info.gid)) return true;
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s owner (%u:%u) not matched with (%u:%u). ", path,
            live.st_uid, live.st_gid, info.uid, info.gid);
    return false;
}

std::string BackupComparer::DescribeAttributes(const std::string& path) const {
    if (attribute_kinds_ == 0) return "";
    const SDK::PathAnchor::Entry live = rule_->Live(path);
    const SDK::PathAnchor::Entry copy = rule_->Copy(path);
    struct stat now {};
    struct stat before {};
    if (!live.IsOpen() || !copy.IsOpen() || Stat(live, now) != 0 || Stat(copy, before) != 0 ||
        (now.st_mode & S_IFMT) != (before.st_mode & S_IFMT)) {
        return "";
    }
    return DifferenceText(Attributes(live, now.st_mode, attribute_kinds_),
                          Attributes(copy, before.st_mode, attribute_kinds_));
}

bool DirectoryDiffers(const AnchoredRule& rule, const std::string& path, unsigned attribute_kinds) {
    struct stat live {};
    struct stat copy {};
    if (rule.StatLive(path, live) != 0) live = {};
    if (rule.StatCopy(path, copy) != 0) copy = {};
    if (live.st_mode != copy.st_mode || live.st_uid != copy.st_uid || live.st_gid != copy.st_gid) {
        return true;
    }
    return attribute_kinds != 0 && SDK::AttributeComparison::Differ(
                                       Attributes(rule.Live(path), live.st_mode, attribute_kinds),
                                       Attributes(rule.Copy(path), copy.st_mode, attribute_kinds));
}

bool BackupComparer::LacksContent(const std::string& path,
                                  const std::function<bool(const std::string&)>& ignored) const {
    const std::string directory = SDK::PathUtils::WithoutTrailingSlash(path) + "/";
    const SDK::FileDescriptor copy = rule_->OpenCopyDirectory(path);
    const SDK::FileDescriptor live = rule_->OpenLiveDirectory(path);
    if (!copy.IsOpen() || !live.IsOpen()) return false;
    const auto lacks = [&](const std::string& name) {
        struct stat found {};
        if (name.back() == '.') return false;
        if (::fstatat(live.Get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ||
            errno != ENOENT ||
            ::fstatat(copy.Get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            return false;
        }
        const std::string missing = directory + name;
        if (ignored(S_ISDIR(found.st_mode) ? missing + "/" : missing)) return false;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Dir %s lacks %s. ", path, missing);
        return true;
    };
    const std::vector<std::string> names = NamesIn(copy.Get());
    return std::any_of(names.begin(), names.end(), lacks);
}

}  // namespace Engine
