#pragma once

#include <dirent.h>

#include <memory>

namespace SDK {

/// Lists the names in an open directory, except "." and "..", one by one. Entries may be removed
/// meanwhile. Not thread-safe.
class DirectoryListing {
  public:
    /// Opens the directory again; the caller keeps the descriptor (O_RDONLY or O_PATH).
    explicit DirectoryListing(int directory);

    /// False at the end and after a failure; Error() tells which.
    bool Next();

    /// The current entry; valid until the next call of Next.
    const char* Name() const { return entry_->d_name; }
    /// Asks the file system where the listing has no type; false when the entry is gone.
    bool IsDirectory() const;

    /// 0, or the errno of the failure.
    int Error() const { return error_; }

  private:
    struct CloseDir {
        void operator()(DIR* stream) const { ::closedir(stream); }
    };

    std::unique_ptr<DIR, CloseDir> stream_;
    const dirent* entry_ = nullptr;
    int error_ = 0;
};

}  // namespace SDK
