#pragma once

#include <dirent.h>

#include <memory>

namespace SDK {

/// Goes through the names in an open directory but "." and "..", one by one. Entries may be removed
/// meanwhile. One thread.
class DirectoryListing {
  public:
    /// Opens the directory anew; the descriptor (reading or O_PATH) stays the caller's.
    explicit DirectoryListing(int directory);

    /// False at the end, and when the directory cannot be listed any further; Error() tells which.
    bool Next();

    /// Of the entry that Next has come to; the name lives until the next one.
    const char* Name() const { return entry_->d_name; }
    /// Asks the file system where the listing does not say; false when the entry is gone.
    bool IsDirectory() const;

    /// 0, or the errno with which listing failed.
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
