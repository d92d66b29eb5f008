// Owns the directories of one deploy. It must not know what a deploy is for (Deploys does). Any
// thread.
#include "deploy/StagedTree.h"

#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/restore/AttributeComparison.h>
#include <sdk/text/StrUtils.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <limits>

#include "base/DirectoryListing.h"

namespace Engine {

namespace {

constexpr std::size_t kIdLength = 12;
constexpr long kMostBytes = 256L * 1024 * 1024;

/// A directory that only its owner, who runs the agent, can change or enter.
bool IsOwn(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
           info.st_uid == ::geteuid() && (info.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

}  // namespace

StagedTree::StagedTree(const std::string& id) : id_(id), path_(Home() + "/" + id) {}

std::string StagedTree::Home() {
    return SDK::PathUtils::GetInstallationPath() + "data/deploy";
}

bool StagedTree::IsId(const std::string& id) {
    return id.size() == kIdLength && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string StagedTree::NewId() {
    unsigned long long number = 0;
    if (::getrandom(&number, sizeof(number), 0) < 0)
        number = static_cast<unsigned long long>(::time(nullptr));
    return SDK::StrUtils::Format("%012llx", number & 0xffffffffffffULL);
}

std::vector<std::string> StagedTree::All() {
    std::vector<std::string> ids;
    if (!IsOwn(Home())) return ids;
    const SDK::FileDescriptor home(
        ::open(Home().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    for (DirectoryListing names(home.Get()); const char* name = names.Next();) {
        if (IsId(name)) ids.emplace_back(name);
    }
    return ids;
}

int StagedTree::Make(int root) const {
    struct stat wanted {};
    if (SDK::DirUtils::MakeDirs(Home(), S_IRWXU) != 0 || ::fstat(root, &wanted) != 0) return -1;
    ::chmod(Home().c_str(), S_IRWXU);
    for (const char* name : {"", "/upper", "/work", "/tree"}) {
        if (::mkdir((path_ + name).c_str(), S_IRWXU) != 0) return -1;
    }
    const SDK::FileDescriptor upper(
        ::open((path_ + "/upper").c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!upper.IsOpen() || ::fchown(upper.Get(), wanted.st_uid, wanted.st_gid) != 0 ||
        ::fchmod(upper.Get(), wanted.st_mode & ALLPERMS) != 0) {
        return -1;
    }
    SDK::AttributeComparison::Make(upper.Get(), ".",
                                   SDK::AttributeComparison::Read(root, ".", SDK::kAllAttributes),
                                   SDK::kAllAttributes);
    return WriteFile("lock", "");
}

std::unique_ptr<SDK::PathAnchor> StagedTree::Upper() const {
    if (!IsOwn(Home()) || !IsOwn(path_)) return nullptr;
    return SDK::PathAnchor::Open(path_ + "/upper");
}

bool StagedTree::IsLocked() const {
    const SDK::FileDescriptor lock(::open((path_ + "/lock").c_str(), O_RDONLY | O_CLOEXEC));
    return lock.IsOpen() && ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0;
}

long StagedTree::Age() const {
    struct stat info {};
    if (::stat((path_ + "/lock").c_str(), &info) != 0) return std::numeric_limits<long>::max();
    return static_cast<long>(std::time(nullptr) - info.st_mtim.tv_sec);
}

// What is mounted at the tree shows the live site's excluded directories, so the tree itself is
// only ever unmounted, never emptied.
bool StagedTree::Remove() const {
    if (!IsOwn(path_)) return false;
    const std::string tree = path_ + "/tree";
    while (::umount2(tree.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
    }
    const bool is_unmounted = ::rmdir(tree.c_str()) == 0 || errno == ENOENT;
    for (const char* name : {"upper", "work", "changes", "deploy.json"}) {
        SDK::DirUtils::DeleteBeneath(path_, name);
    }
    if (!is_unmounted) return false;
    SDK::DirUtils::DeleteBeneath(path_, "lock");
    return ::rmdir(path_.c_str()) == 0;
}

std::string StagedTree::ReadFile(const std::string& name) const {
    std::string text;
    if (SDK::FileUtils::ReadFile(path_ + "/" + name, text, kMostBytes) != 0) return "";
    return text;
}

int StagedTree::WriteFile(const std::string& name, const std::string& text) const {
    return SDK::FileUtils::WriteFile(path_ + "/" + name, text, false);
}

}  // namespace Engine
