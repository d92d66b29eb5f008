#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "index/DirNode.h"

namespace Engine::FileNotify {

/// What is known of the file system: a tree of directories from "/" on, with the names they hold.
///
/// Paths are put together from the parents, so that renaming a directory touches one node. Nothing
/// here knows of watches. Operations that go through a subtree do not recurse: its depth is an
/// attacker's choice. Task's thread only.
class NameIndex {
  public:
    enum class Kind { kNone, kDirectory, kOther };
    using Visitor = std::function<void(DirNode&)>;

    NameIndex();
    ~NameIndex();
    NameIndex(const NameIndex&) = delete;
    NameIndex& operator=(const NameIndex&) = delete;

    DirNode& Root() { return *root_; }

    /// A link on the way to a root is no directory, although it has a node.
    static Kind Lookup(const DirNode& dir, std::string_view name);

    /// The node of that directory, made when it is new. A file known under the name is forgotten.
    DirNode& AddDirectory(DirNode& parent, std::string_view name);

    /// False when it was known already. No directory may be known under the name.
    bool AddFile(DirNode& dir, std::string_view name);
    bool RemoveFile(DirNode& dir, std::string_view name);
    /// All at once; none stands there twice or is a directory's.
    void SetFiles(DirNode& dir, const PackedNames& names);
    void ClearFiles(DirNode& dir);

    /// Gives `node`, with all below it, another place and name, which must be free.
    void Move(DirNode& node, DirNode& parent, std::string_view name);

    /// Exchanges the places and names of two directories, neither of them within the other.
    void Exchange(DirNode& one, DirNode& other);

    /// Forgets `node` and all below it; `leaving` is called for each, the deepest first.
    void Remove(DirNode& node, const Visitor& leaving);

    void SetUnwatched(DirNode& node, bool unwatched);

    /// True when `node` is `top` or lies below it.
    static bool IsWithin(const DirNode& node, const DirNode& top);

    /// The path of `name` in `dir`, from below `top` on, without a leading "/"; the whole path
    /// when `top` is null.
    static std::string PathBelow(const DirNode* top, const DirNode& dir, std::string_view name);
    static std::size_t PathLength(const DirNode& dir);
    static std::string PathOf(const DirNode& dir, std::string_view name = {});

  private:
    static void AddTotals(DirNode* node, const SubtreeTotals& change, bool add);
    void Dismantle(DirNode& top, const Visitor& leaving);

    std::unique_ptr<DirNode> root_;
};

}  // namespace Engine::FileNotify
