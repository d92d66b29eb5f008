#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sdk/restore/AttributeComparison.h"

namespace SDK {

/// The attributes that a restore sets: those that this process can set, with the POSIX ACLs but
/// without other system attributes.
bool IsRestoredAttribute(std::string_view name);

/// Reads and sets the extended attributes of an object of any kind. Operations give 0, or -1
/// (errno). A file system without attributes gives an empty set. Not thread-safe.
class ExtendedAttributeAccess {
  public:
    using Filter = std::function<bool(std::string_view name)>;

    /// Of an open object; the caller keeps the descriptor. `is_path`: opened with O_PATH, as for
    /// links and special files. Without /proc these have no attributes.
    ExtendedAttributeAccess(int fd, bool is_path);

    /// Of the object `name` in the open directory `directory`, also when it is a link. Without
    /// /proc it has no attributes.
    ExtendedAttributeAccess(int directory, const std::string& name);

    /// The attributes that `filter` accepts.
    int Read(ExtendedAttributes& found, const Filter& filter = IsRestoredAttribute) const;

    /// Sets what differs from `wanted` and removes the rest of what `filter` accepts. Continues
    /// after failures; errno is that of the first one.
    int Make(const ExtendedAttributes& wanted, const Filter& filter = IsRestoredAttribute) const;

  private:
    enum class By { kDescriptor, kOpenedPath, kName };

    int Names(std::vector<std::string>& names, const Filter& filter) const;
    int List(std::string& names) const;
    int Get(const std::string& name, std::string& value) const;
    int Set(const std::string& name, const std::string& value) const;
    int Remove(const std::string& name) const;

    const By by_;
    const int fd_;
    const std::string path_;
};

}  // namespace SDK
