#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <string>

#include "TestSite.h"

namespace test {

/// Applies random operations to a site and to the directory outside it. The seed alone decides the
/// operations; their results depend on the concurrent processes. No operation follows a symbolic
/// link. A file outside the site or in an excluded directory is never written to: it may have
/// another hard link in the site, for which the kernel would send no event. Not thread-safe.
class TreeMutator {
  public:
    TreeMutator(const TestSite& site, std::uint64_t seed);

    /// The operation may fail.
    void RunRandomOperation();

    /// Makes more changes than the kernel queues for a reader that does not read.
    void OverflowQueue() const;

  private:
    /// A name in an open directory. Operations fail when the directory does not exist.
    struct Entry {
        SDK::FileDescriptor parent;
        std::string name;
        bool is_monitored = true;  ///< the agent must see a change here
    };

    Entry EntryInSite(const std::string& path) const;
    Entry InitialFile();
    Entry InitialDirectory();
    Entry InitialOrNew();
    Entry NewOutside();

    void ChangeContent();
    void ChangeKeepingSizeAndTime();
    void ChangeAttributes();
    void Remove();
    void Move();
    void MoveOut();
    void MoveIn();
    void CreateHardLink();
    void CreateSymlink();
    void ReplaceByOtherType();
    void BuildTree(const Entry& top);
    void CreateTree();
    static void Exchange(const Entry& one, const Entry& other);
    static void Rename(const Entry& from, const Entry& to);

    const TestSite& site_;
    Random random_;
    std::string prefix_;  ///< unique among the mutators
    int outside_count_ = 0;
};

}  // namespace test
