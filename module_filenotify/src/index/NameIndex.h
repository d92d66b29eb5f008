#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "index/DirNode.h"

namespace Engine::FileNotify {

/// The known directories from "/" on and the names in them. Owned by WatchedTree. Not thread-safe.
///
/// A path is built from a node's parents, so renaming a directory changes one node. Operations on a
/// subtree must not recurse, because an attacker chooses its depth.
class NameIndex {
  public:
    enum class Kind { kNone, kDirectory, kOther };
    using Visitor = std::function<void(DirNode&)>;

    NameIndex();
    ~NameIndex();
    NameIndex(const NameIndex&) = delete;
    NameIndex& operator=(const NameIndex&) = delete;

    DirNode& Root() { return *root_; }
    const DirNode& Root() const { return *root_; }

    /// The kind of `name` in `dir`. A followed link on the path to a root is kOther.
    static Kind Lookup(const DirNode& dir, std::string_view name);

    /// Returns the node of that directory; creates it when it is new. Replaces a file of that name.
    DirNode& AddDirectory(DirNode& parent, std::string_view name);

    /// Returns false when the file was known. No directory of that name may be known.
    bool AddFile(DirNode& dir, std::string_view name);
    /// Returns false when the file was unknown.
    bool RemoveFile(DirNode& dir, std::string_view name);
    /// Replaces all files of `dir`. Names must be unique and not those of directories.
    void SetFiles(DirNode& dir, const PackedNames& names);
    void ClearFiles(DirNode& dir);

    /// Moves `node` with its subtree to another parent and name. The name must be unused.
    void Move(DirNode& node, DirNode& parent, std::string_view name);

    /// Exchanges the parents and names of two directories. Neither may contain the other.
    void Exchange(DirNode& one, DirNode& other);

    /// Removes `node` and its subtree; calls `on_remove` for each directory, the deepest first.
    void Remove(DirNode& node, const Visitor& on_remove);

    void SetUnwatched(DirNode& node, bool unwatched);

    /// True when `node` is `top` or lies below it.
    static bool IsWithin(const DirNode& node, const DirNode& top);

    /// The path of `name` in `dir`, relative to `top` and without a leading "/". The absolute path
    /// when `top` is null.
    static std::string PathBelow(const DirNode* top, const DirNode& dir, std::string_view name);

    /// The length of the absolute path of `dir` in bytes, including its leading "/".
    static std::size_t PathLength(const DirNode& dir);

    /// The absolute path of `name` in `dir`, or of `dir` when `name` is empty.
    static std::string PathOf(const DirNode& dir, std::string_view name = {});

  private:
    static void AddTotals(DirNode* node, const SubtreeTotals& change, bool add);
    void Dismantle(DirNode& top, const Visitor& on_remove);

    std::unique_ptr<DirNode> root_;
};

}  // namespace Engine::FileNotify
