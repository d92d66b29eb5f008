#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

namespace Baseline {

/// A tree, or a single file, below a held directory.
struct TreeRoot {
    const SDK::PathAnchor* anchor = nullptr;  ///< borrowed
    std::string file = {};                    ///< not empty: only this name in the directory
};

/// An object as its open parent directory and its name there.
struct WalkedObject {
    std::string path;  ///< relative to the root; "" is the root itself
    std::shared_ptr<const SDK::FileDescriptor> directory;
    std::string name;  ///< "." for the root
    struct stat info {};

    bool IsDirectory() const { return S_ISDIR(info.st_mode); }
};

/// Visits all objects of a tree in the order of ComparePaths: a directory, then all below it. Never
/// follows a link and leaves the access times as they are where it may. Objects that vanish
/// meanwhile are left out. Not thread-safe.
class TreeWalk {
  public:
    /// Begins at `from`, a path relative to the root.
    explicit TreeWalk(TreeRoot root, const std::string& from = "");

    /// False at the end. The object is valid until the next call.
    bool Next();
    const WalkedObject& Object() const { return object_; }

    /// Does not enter the present object.
    void SkipBelow() { enter_ = false; }

  private:
    struct Level {
        std::string path;                ///< ends in "/" except for the root, which is ""
        std::vector<std::string> names;  ///< still to come, the next one at the back
        std::shared_ptr<const SDK::FileDescriptor> directory;  ///< null: to be opened again
    };

    bool First();
    void Enter();
    bool Open(Level& level);
    bool LookAt(const std::shared_ptr<const SDK::FileDescriptor>& directory, std::string name,
                std::string path);

    const TreeRoot root_;
    const std::string from_;
    bool begun_ = false;
    bool enter_ = false;
    std::vector<Level> levels_;
    WalkedObject object_;
};

}  // namespace Baseline
