#include "TreeRemover.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "sdk/TimeUtils.h"

namespace SDK {

namespace {

constexpr std::int64_t kPatienceMs = 500;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct CloseDir {
    void operator()(DIR* stream) const { ::closedir(stream); }
};

/// The names in the directory but "." and ".."; false when it cannot be listed to its end (errno).
bool ListNames(int directory, std::vector<std::string>& names) {
    FileDescriptor own(::openat(directory, ".", kDirectoryFlags));
    if (!own.IsOpen()) return false;
    const std::unique_ptr<DIR, CloseDir> stream(::fdopendir(own.Get()));
    if (!stream) return false;
    own.Release();
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr) return errno == 0;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
}

}  // namespace

int TreeRemover::Remove(const std::string& path) {
    if (path == "/") {
        errno = EBUSY;
        return -1;
    }
    return RemoveAt(AT_FDCWD, path);
}

// Somebody who goes on putting files in keeps the directory from going: it is gone through again.
int TreeRemover::RemoveAt(int parent, const std::string& name) {
    int result = RemoveOnce(parent, name);
    const std::int64_t end = TimeUtils::GetMonotonicMs() + kPatienceMs;
    while (result != 0 && errno == ENOTEMPTY && TimeUtils::GetMonotonicMs() < end) {
        result = RemoveOnce(parent, name);
        if (result != 0 && errno == ENOENT) return 0;
    }
    return result;
}

int TreeRemover::RemoveOnce(int parent, const std::string& name) {
    first_error_ = 0;
    levels_.clear();
    parent_ = parent;
    if (!Enter(FileDescriptor(::openat(parent, name.c_str(), kDirectoryFlags)), name)) {
        errno = first_error_;
        return -1;
    }
    while (!levels_.empty()) {
        std::vector<std::string>& waiting = levels_.back().directories;
        if (!waiting.empty()) {
            const std::string child = std::move(waiting.back());
            waiting.pop_back();
            Descend(child);
        } else if (!Leave()) {
            break;
        }
    }
    errno = first_error_;
    return first_error_ == 0 ? 0 : -1;
}

/// Makes `directory` the current one and removes what it holds but directories, which wait.
bool TreeRemover::Enter(FileDescriptor directory, const std::string& name) {
    struct stat info {};
    if (!directory.IsOpen() || ::fstat(directory.Get(), &info) != 0) {
        Failed(errno);
        return false;
    }
    current_ = std::move(directory);
    levels_.push_back({name, info.st_dev, info.st_ino, {}});
    std::vector<std::string> names;
    if (!ListNames(current_.Get(), names)) Failed(errno);
    for (const std::string& entry : names) RemoveEntry(entry);
    return true;
}

void TreeRemover::RemoveEntry(const std::string& name) {
    if (::unlinkat(current_.Get(), name.c_str(), 0) == 0 || errno == ENOENT) return;
    if (errno == EISDIR) {
        levels_.back().directories.push_back(name);
    } else {
        Failed(errno);
    }
}

void TreeRemover::Descend(const std::string& name) {
    FileDescriptor child(::openat(current_.Get(), name.c_str(), kDirectoryFlags));
    if (child.IsOpen()) {
        Enter(std::move(child), name);
    } else if (errno == ENOTDIR || errno == ELOOP) {
        // No directory any more: it goes like any entry, and is not tried a third time.
        if (::unlinkat(current_.Get(), name.c_str(), 0) != 0) Failed(errno);
    } else if (errno != ENOENT) {
        Failed(errno);
    }
}

/// Removes the emptied current directory and goes back to the one above; false at the end. The
/// directory above is recognised: "..", too, can lead elsewhere when directories are moved.
bool TreeRemover::Leave() {
    const Level done = std::move(levels_.back());
    levels_.pop_back();
    FileDescriptor above;
    if (!levels_.empty()) {
        above.Reset(::openat(current_.Get(), "..", kDirectoryFlags));
        struct stat info {};
        if (!above.IsOpen() || ::fstat(above.Get(), &info) != 0 ||
            info.st_dev != levels_.back().device || info.st_ino != levels_.back().inode) {
            Failed(above.IsOpen() ? EAGAIN : errno);
            return false;
        }
    }
    const int at = levels_.empty() ? parent_ : above.Get();
    if (::unlinkat(at, done.name.c_str(), AT_REMOVEDIR) != 0) Failed(errno);
    current_ = std::move(above);
    return true;
}

void TreeRemover::Failed(int error) {
    if (first_error_ == 0) first_error_ = error;
}

}  // namespace SDK
