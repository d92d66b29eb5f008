#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "index/HashSlots.h"
#include "index/NameSet.h"

namespace Engine::FileNotify {

struct DirNode;

/// The directories within a directory; owns their nodes. Not for several threads.
class ChildDirs {
  public:
    ChildDirs();
    ~ChildDirs();
    ChildDirs(const ChildDirs&) = delete;
    ChildDirs& operator=(const ChildDirs&) = delete;

    DirNode* Find(std::string_view name) const;
    DirNode& Add(std::unique_ptr<DirNode> node);  ///< its name must be new
    std::unique_ptr<DirNode> Take(const DirNode& node);
    void Reserve(std::size_t count) { nodes_.reserve(count); }
    const std::vector<std::unique_ptr<DirNode>>& All() const { return nodes_; }

  private:
    static constexpr std::size_t kHashedFrom = 16;
    std::uint32_t IndexOf(std::string_view name) const;

    std::vector<std::unique_ptr<DirNode>> nodes_;
    std::unique_ptr<HashSlots> slots_;
};

/// What lies in the subtree of a directory, itself included.
struct SubtreeTotals {
    std::uint32_t directories = 0;
    std::uint32_t files = 0;
    std::uint32_t unwatched = 0;
};

/// One known directory. A plain record: NameIndex keeps names and totals, WatchTable the watch,
/// WalkQueue the job, WatchMatcher the flags about roots.
struct DirNode {
    enum Flag : std::uint8_t {
        kListed = 1,        ///< its names are known
        kInitial = 2,       ///< found by a first walk and not listed yet: what it holds is old
        kWaitedFor = 4,     ///< some watch is attached here
        kUnwatched = 8,     ///< it should have a kernel watch and could not get one
        kThroughLink = 16,  ///< on the way to a root, a link that is followed
        kPartial = 32,      ///< some of its names were left out, as no watch wanted them
        kByItself = 64      ///< not to be visited together with others
    };

    bool Is(Flag flag) const { return (flags & flag) != 0; }
    void Set(Flag flag, bool on) {
        flags = static_cast<std::uint8_t>(on ? flags | flag : flags & ~flag);
    }

    DirNode* parent = nullptr;
    std::string name;
    NameSet files;  ///< everything that is no directory
    ChildDirs dirs;
    SubtreeTotals totals;
    int wd = -1;
    std::uint64_t inode = 0;      ///< which directory it is; 0: not known yet
    std::uint32_t mask = 0;       ///< what the kernel watch asks for
    std::uint32_t job_index = 0;  ///< place in the walk queue while `job` is set
    std::uint8_t job = 0;
    std::uint8_t flags = 0;
};

}  // namespace Engine::FileNotify
