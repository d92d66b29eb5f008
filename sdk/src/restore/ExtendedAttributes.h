#pragma once

#include <map>
#include <string>

namespace SDK {

/// Values by name: the attributes that this process can set, with the POSIX ACLs but without other
/// system attributes. Raw bytes.
using ExtendedAttributes = std::map<std::string, std::string>;

/// Reads and sets the extended attributes of an open object of any kind; the caller keeps the
/// descriptor. Operations give 0, or -1 (errno). A file system without attributes gives an empty
/// set. Not thread-safe.
class ExtendedAttributeAccess {
  public:
    /// `is_path`: opened with O_PATH, as for links and special files. Without /proc these have no
    /// attributes.
    ExtendedAttributeAccess(int fd, bool is_path);

    int Read(ExtendedAttributes& found) const;

    /// Sets what differs from `wanted` and removes the rest. Continues after failures; errno is
    /// that of the first one.
    int Make(const ExtendedAttributes& wanted) const;

  private:
    int List(std::string& names) const;
    int Get(const std::string& name, std::string& value) const;
    int Set(const std::string& name, const std::string& value) const;
    int Remove(const std::string& name) const;

    const int fd_;
    const std::string path_;  // empty: by the descriptor itself
};

}  // namespace SDK
