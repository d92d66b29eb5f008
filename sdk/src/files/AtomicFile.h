#pragma once

#include <cstddef>
#include <string>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// Replaces a file in one step: writes a temporary file beside it, mode 0600, and renames that. The
/// destructor removes what was not committed. Operations give 0 on success and -1 on failure
/// (errno). Not thread-safe.
class AtomicFile {
  public:
    explicit AtomicFile(const std::string& target) : target_(target) {}
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    int Open();
    int Write(const char* data, std::size_t size);

    /// Syncs the content and renames the file to the target.
    int Commit();

  private:
    const std::string target_;
    std::string temporary_;  // empty: nothing to remove
    FileDescriptor file_;
};

}  // namespace SDK
