#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sdk/FileDescriptor.h"

namespace SDK {

/// Removes a directory tree through descriptors only, so that a link put in place of a directory
/// meanwhile is removed and not followed. Holds one directory open however deep the tree is. One
/// thread; one use.
class TreeRemover {
  public:
    /// 0 when all is gone, at the latest after half a second of files being added meanwhile. Goes
    /// on past what cannot be removed; -1 then, errno the first failure. Refuses "/".
    int Remove(const std::string& path);

    /// The same for the directory `name` in the directory `parent`, which stays the caller's.
    int RemoveAt(int parent, const std::string& name);

  private:
    struct Level {
        std::string name;  // in the directory above
        dev_t device;
        ino_t inode;
        std::vector<std::string> directories;  // still to be removed
    };

    int RemoveOnce(int parent, const std::string& name);
    bool Enter(FileDescriptor directory, const std::string& name);
    bool Leave();
    void Descend(const std::string& name);
    void RemoveEntry(const std::string& name);
    void Failed(int error);

    int parent_ = -1;         // borrowed: where the tree's root stands
    FileDescriptor current_;  // the directory of levels_.back()
    std::vector<Level> levels_;
    int first_error_ = 0;
};

}  // namespace SDK
