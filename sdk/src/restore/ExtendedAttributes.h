#pragma once

#include <map>
#include <string>

namespace SDK {

/// Values by name: all that this process may set but the system's own, and the POSIX ACLs. Raw
/// bytes.
using ExtendedAttributes = std::map<std::string, std::string>;

/// Reads and sets the extended attributes of an open object of any kind, through its descriptor,
/// which stays the caller's. One thread. 0, or -1 (errno). A file system that has none gives an
/// empty set.
class ExtendedAttributeAccess {
  public:
    /// `is_path`: opened with O_PATH, as links and special files are: where /proc is
    /// missing, these have none.
    ExtendedAttributeAccess(int fd, bool is_path);

    int Read(ExtendedAttributes& found) const;

    /// Makes the object's those of `wanted`: sets what differs, removes what is not in it. Goes on
    /// past what fails; errno is then that of the first failure.
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
