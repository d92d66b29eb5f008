// Prepares the directories of backup copies. It must not check a policy (policy_check does) nor
// keep the directories open (RuleAnchors does). Backup task's thread.
#define SDK_LOG_FILE "SentrelBackupTask.cpp"
#include "feature_sentrel/backup/BackupDirectory.h"

#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/log/Log.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/DirectoryListing.h"
#include "base/ModuleLogger.h"

namespace Engine {

namespace {

constexpr mode_t kPrivate = S_IRWXU;
constexpr std::string_view kOwn = ".morvane-";  // prefix of the agent's own names

/// Directories that programs of other users go through; none of them holds only copies.
constexpr std::array<const char*, 24> kShared = {
    "/",      "/bin", "/boot", "/dev",  "/etc",       "/home",    "/lib",         "/lib64",
    "/media", "/mnt", "/opt",  "/proc", "/root",      "/run",     "/sbin",        "/srv",
    "/sys",   "/tmp", "/usr",  "/var",  "/usr/local", "/var/lib", "/var/backups", "/var/tmp"};

bool IsShared(const std::string& path, const std::list<SentrelDirRule>& rules) {
    const std::string inside = path == "/" ? path : path + "/";
    return std::find(kShared.begin(), kShared.end(), path) != kShared.end() ||
           std::any_of(rules.begin(), rules.end(), [&](const SentrelDirRule& rule) {
               return SDK::StrUtils::BeginsWith(rule.real_path, inside);
           });
}

/// The name of a copy is the first component of a protected path, of this policy or another.
bool IsOfCopies(const std::string& name, const std::list<SentrelDirRule>& rules) {
    if (name == "lost+found" || SDK::StrUtils::BeginsWith(name, kOwn)) return true;
    const std::string top = "/" + name;
    struct stat info {};
    if (::lstat(top.c_str(), &info) == 0) return true;
    return std::any_of(rules.begin(), rules.end(), [&](const SentrelDirRule& rule) {
        return SDK::StrUtils::BeginsWith(rule.real_path, top + "/");
    });
}

/// The first name in the directory that is no copy; empty when there is none.
std::string ForeignName(int directory, const std::list<SentrelDirRule>& rules) {
    DirectoryListing listing(directory);
    if (!listing.IsOpen()) return "?";
    while (const char* name = listing.Next()) {
        if (!IsOfCopies(name, rules)) return name;
    }
    return "";
}

std::string MakePrivate(const std::string& path, const std::list<SentrelDirRule>& rules) {
    const std::string advice = "; give the copies a directory of their own with mode 0700";
    const SDK::FileDescriptor directory(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!directory.IsOpen() || ::fstat(directory.Get(), &info) != 0) {
        return "cannot open " + path + ": " + std::strerror(errno);
    }
    if (IsShared(path, rules)) return "others need to go through " + path + advice;
    const std::string foreign = ForeignName(directory.Get(), rules);
    if (!foreign.empty()) {
        return "others can reach " + path + ", which holds more than copies (" + foreign + ")" +
               advice;
    }
    if (info.st_uid != ::geteuid() || ::fchmod(directory.Get(), kPrivate) != 0) {
        return "others can reach " + path + ", whose mode cannot be changed" + advice;
    }
    SDK_LOG(ModuleLogger(), PRIO_WARNING,
            "%s had mode %04?o; it is 0700 now, so that no other user can reach the copies.", path,
            static_cast<unsigned int>(info.st_mode & ALLPERMS));
    return "";
}

}  // namespace

std::string BackupDirectory::Prepare(const std::string& backup_path,
                                     const std::list<SentrelDirRule>& rules) {
    const std::string path = SDK::PathUtils::WithoutTrailingSlash(backup_path);
    if (path.empty() || path.front() != '/') return "the backup path is not absolute";
    std::string writable = SDK::PlaceTrust::WhyWritable(path);
    if (!writable.empty()) return writable;
    if (SDK::DirUtils::MakeDirs(path, kPrivate) != 0) {
        return "cannot make " + path + ": " + std::strerror(errno);
    }
    return SDK::PlaceTrust::WhyReachable(path).empty() ? "" : MakePrivate(path, rules);
}

}  // namespace Engine
