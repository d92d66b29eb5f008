#include "sdk/files/DirUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <vector>

#include "files/TreeRemover.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/PathUtils.h"

namespace SDK {

namespace {

bool LeadsToDirectory(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return false;
    if (!S_ISDIR(info.st_mode)) errno = ENOTDIR;
    return S_ISDIR(info.st_mode);
}

int MakeOne(const std::string& path, mode_t mode) {
    if (LeadsToDirectory(path)) return 0;
    if (::mkdir(path.c_str(), mode) != 0) {
        // Another thread may have made the directory meanwhile; any other object is a failure.
        return errno == EEXIST && LeadsToDirectory(path) ? 0 : -1;
    }
    const FileDescriptor made(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return made.IsOpen() ? ::fchmod(made.Get(), mode) : -1;
}

constexpr int kWayFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// The components of a relative path; empty for "" and for a path with "..".
std::vector<std::string> ComponentsBelow(const std::string& path) {
    std::vector<std::string> components;
    std::istringstream text(path);
    for (std::string name; std::getline(text, name, '/');) {
        if (name == "..") return {};
        if (!name.empty() && name != ".") components.push_back(name);
    }
    return components;
}

}  // namespace

bool DirUtils::IsDir(const std::string& path) {
    struct stat info {};
    return ::lstat(PathUtils::WithoutTrailingSlash(path).c_str(), &info) == 0 &&
           S_ISDIR(info.st_mode);
}

int DirUtils::DeleteDir(const std::string& path) {
    return TreeRemover().Remove(PathUtils::WithoutTrailingSlash(path));
}

int DirUtils::DeleteBeneath(const std::string& root, const std::string& path) {
    const std::vector<std::string> components = ComponentsBelow(path);
    if (components.empty() || path.front() == '/') {
        errno = EINVAL;
        return -1;
    }
    FileDescriptor parent(::open(PathUtils::WithoutTrailingSlash(root).c_str(), kWayFlags));
    for (std::size_t at = 0; parent.IsOpen() && at + 1 < components.size(); ++at) {
        parent.Reset(::openat(parent.Get(), components[at].c_str(), kWayFlags));
    }
    if (!parent.IsOpen()) return -1;
    return DeleteAt(parent.Get(), components.back());
}

int DirUtils::DeleteAt(int directory, const std::string& name) {
    return DeleteAt(directory, name, TreeRemover::kNoLimit);
}

int DirUtils::DeleteAt(int directory, const std::string& name, std::int64_t limit_ms) {
    if (::unlinkat(directory, name.c_str(), 0) == 0) return 0;
    return errno == EISDIR ? TreeRemover(ExclusionFilter(), "", limit_ms).RemoveAt(directory, name)
                           : -1;
}

int DirUtils::MakeDirs(const std::string& path, mode_t mode) {
    const std::string wanted = PathUtils::WithoutTrailingSlash(path);
    if (wanted.empty()) {
        errno = ENOENT;
        return -1;
    }
    for (std::size_t slash = wanted.find('/', 1); slash != std::string::npos;
         slash = wanted.find('/', slash + 1)) {
        if (MakeOne(wanted.substr(0, slash), mode) != 0) return -1;
    }
    return MakeOne(wanted, mode);
}

}  // namespace SDK
