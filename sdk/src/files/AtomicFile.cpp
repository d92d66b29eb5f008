#include "files/AtomicFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "sdk/files/WriteAll.h"

namespace SDK {

namespace {

constexpr const char* kTemporaryName = ".morvane-XXXXXX";
constexpr mode_t kMode = 0600;

}  // namespace

AtomicFile::~AtomicFile() {
    const int error = errno;  // keeps the errno that the caller reads next
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
    errno = error;
}

int AtomicFile::Open() {
    // Otherwise only rename(2) in Commit would fail.
    if (target_.empty() || target_.back() == '/') {
        errno = target_.empty() ? ENOENT : EISDIR;
        return -1;
    }
    // The name does not include the target's, which may already have the maximum length.
    std::string name = target_.substr(0, target_.rfind('/') + 1) + kTemporaryName;
    file_.Reset(::mkostemp(name.data(), O_CLOEXEC));
    if (!file_.IsOpen()) return -1;
    temporary_ = name;
    return ::fchmod(file_.Get(), kMode);
}

int AtomicFile::Write(const char* data, std::size_t size) {
    return WriteAll(file_.Get(), data, size);
}

int AtomicFile::Commit() {
    if (::fsync(file_.Get()) != 0) return -1;
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) return -1;
    temporary_.clear();
    // Best effort: the new content is in place; without this a power failure may undo the rename.
    const std::string directory = target_.substr(0, target_.rfind('/') + 1);
    const FileDescriptor parent(
        ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent.IsOpen()) ::fsync(parent.Get());
    return 0;
}

}  // namespace SDK
