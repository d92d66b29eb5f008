#include "files/DirectoryListing.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

DirectoryListing::DirectoryListing(int directory) {
    FileDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (own.IsOpen()) stream_.reset(::fdopendir(own.Get()));
    if (stream_) {
        own.Release();
    } else {
        error_ = errno;
    }
}

bool DirectoryListing::Next() {
    if (!stream_) return false;
    do {
        errno = 0;
        entry_ = ::readdir(stream_.get());
        if (entry_ == nullptr) {
            error_ = errno;
            return false;
        }
    } while (std::strcmp(entry_->d_name, ".") == 0 || std::strcmp(entry_->d_name, "..") == 0);
    return true;
}

bool DirectoryListing::IsDirectory() const {
    if (entry_->d_type != DT_UNKNOWN) return entry_->d_type == DT_DIR;
    struct stat info {};
    return ::fstatat(::dirfd(stream_.get()), entry_->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(info.st_mode);
}

}  // namespace SDK
