#pragma once

#include <cstddef>
#include <string>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// Replaces a file in one step: writes a temporary sibling, mode 0600, and renames it over the
/// target. What has not been committed is removed with the object. One thread. The operations give
/// 0 on success and -1 on failure (errno).
class AtomicFile {
  public:
    explicit AtomicFile(const std::string& target) : target_(target) {}
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    int Open();
    int Write(const char* data, std::size_t size);

    /// Syncs the content and puts it in the target's place.
    int Commit();

  private:
    const std::string target_;
    std::string temporary_;  // empty: there is none to remove
    FileDescriptor file_;
};

/// Writes all of `data`; 0, or -1 (errno) when not all of it could be written.
int WriteAll(int fd, const char* data, std::size_t size);

}  // namespace SDK
