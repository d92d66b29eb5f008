#pragma once

#include <boost/container/small_vector.hpp>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "index/DirNode.h"
#include "tree/Watch.h"

namespace Engine::FileNotify {

/// Finds the watches that cover an object. Owned by WatchedTree; owns the watches. Not thread-safe.
///
/// A watch is attached to the parent of its root and compares the root's name. So a renamed root
/// leaves its watch without further work, and a watched file needs no node.
class WatchMatcher {
  public:
    struct Hit {
        Watch* watch;
        const DirNode* root;  ///< null when the object is the root itself
    };
    using Hits = boost::container::small_vector<Hit, 4>;

    Watch& Add(std::unique_ptr<Watch> watch);
    void Remove(Watch& watch);
    /// The watch of that subscription; null when there is none.
    Watch* Find(const Subscription* subscription) const;
    const std::vector<std::unique_ptr<Watch>>& All() const { return watches_; }

    /// Attaches the watch to `dir`, which `depth` components of its path lead to; null for "/".
    void Attach(Watch& watch, DirNode* dir, std::size_t depth);
    void Detach(Watch& watch);

    /// The watches attached to `dir` whose next path component is `name`.
    std::vector<Watch*> AttachedFor(const DirNode* dir, std::string_view name) const;

    /// Sets `hits` to the watches that cover the object `name` in `dir`.
    void Covering(const DirNode& dir, std::string_view name, Hits& hits) const;
    bool IsCovered(const DirNode& dir, std::string_view name) const;

    /// True when a watch covers the content of `dir`, so that it is listed and watched.
    bool IsWalked(const DirNode& dir) const;
    /// The same for a directory `name` in `dir` that has no node.
    bool IsWalked(const DirNode& dir, std::string_view name) const;

    /// True when a watch covers everything in `dir` and walks every directory in it; sets `mask` to
    /// the kernel mask of `dir`. A false negative is possible; it only costs speed.
    bool CoversAllIn(const DirNode& dir, std::uint32_t& mask) const;

    /// True when all receivers ignore the content of `dir` (WatchRequest::ignored_prefixes) and no
    /// path to a root leads through it. It needs no kernel watch.
    bool IsIgnored(const DirNode& dir) const;

    /// True when a watch is attached to `dir` or below it.
    bool IsOnPathToRoot(const DirNode& dir) const;

    /// The mask of the kernel watch that `dir` needs.
    std::uint32_t KernelMask(const DirNode& dir) const;

    /// The object's path as `hit.watch` names it: the watch id and the part below the root.
    static std::string PathFor(const Hit& hit, const DirNode& dir, std::string_view name);

    /// True when `path_below_root` is an excluded subdirectory or below one.
    static bool IsExcluded(const WatchRequest& request, std::string_view path_below_root);

  private:
    static bool HasExclusionIn(const Hit& hit, const DirNode& dir);
    static bool IsIgnoredBy(const Hit& hit, const DirNode& dir);
    void CollectAt(const DirNode* at, std::string_view child, const DirNode* root,
                   const DirNode& dir, std::string_view name, Hits& hits) const;

    std::vector<std::unique_ptr<Watch>> watches_;
    std::unordered_map<const DirNode*, std::vector<Watch*>> attached_watches_;
};

}  // namespace Engine::FileNotify
