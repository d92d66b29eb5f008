#pragma once

#include <boost/container/small_vector.hpp>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "index/DirNode.h"
#include "tree/Watch.h"

namespace Engine::FileNotify {

/// Answers which watches an object belongs to. Owns the watches. Task's thread only.
///
/// A watch is known to the parent of its root, under the root's name; so a root that is renamed
/// leaves its watch by itself, and a file needs no node of its own.
class WatchMatcher {
  public:
    struct Hit {
        Watch* watch;
        const DirNode* root;  ///< null when the object is the root itself
    };
    using Hits = boost::container::small_vector<Hit, 4>;

    Watch& Add(std::unique_ptr<Watch> watch);
    void Remove(Watch& watch);
    Watch* Find(const Subscription* subscription) const;
    const std::vector<std::unique_ptr<Watch>>& All() const { return watches_; }

    /// Puts the watch at `dir` (null: on "/" itself), `depth` components down its path.
    void Attach(Watch& watch, DirNode* dir, std::size_t depth);
    void Detach(Watch& watch);

    /// The watches that wait at `dir` for `name`, as their root or as a step of the way to it.
    std::vector<Watch*> WaitingFor(const DirNode* dir, std::string_view name) const;

    /// The watches whose object `name` in `dir` is.
    void Covering(const DirNode& dir, std::string_view name, Hits& hits) const;
    bool IsCovered(const DirNode& dir, std::string_view name) const;

    /// True when `dir` is to be listed and watched for the sake of what it holds.
    bool IsWalked(const DirNode& dir) const;
    /// The same for a directory `name` in `dir` that has no node.
    bool IsWalked(const DirNode& dir, std::string_view name) const;

    /// True when whatever is in `dir` is covered, and every directory in it walked; `mask` is then
    /// what the kernel is to tell about it. May be false although it is so.
    bool TakesAllIn(const DirNode& dir, std::uint32_t& mask) const;

    /// True when no receiver needs what `dir` holds (WatchRequest::unneeded_prefixes) and no root
    /// is followed through it: when kernel watches run out, others go first.
    bool GivesWay(const DirNode& dir) const;

    /// What the kernel is to tell about `dir`.
    std::uint32_t KernelMask(const DirNode& dir) const;

    /// The path by which `hit.watch` knows the object: its id, and what lies below.
    static std::string PathFor(const Hit& hit, const DirNode& dir, std::string_view name);

    /// `dir` may be null, `name` then empty: the directory "/" as an object.
    static bool IsExcluded(const WatchRequest& request, std::string_view path_below_root);

  private:
    static bool HasExclusionIn(const Hit& hit, const DirNode& dir);
    static bool NeedsNothingIn(const Hit& hit, const DirNode& dir);
    void CollectAt(const DirNode* at, std::string_view child, const DirNode* root,
                   const DirNode& dir, std::string_view name, Hits& hits) const;

    std::vector<std::unique_ptr<Watch>> watches_;
    std::unordered_map<const DirNode*, std::vector<Watch*>> waiting_;
};

}  // namespace Engine::FileNotify
