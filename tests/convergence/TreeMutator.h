#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <string>

#include "TestSite.h"

namespace test {

/// Does at random what can be done to a site. What it does follows from the seed alone; what comes
/// of it depends on who else is at work. It never goes through a link, so nothing but the site and
/// the place beside it is changed. Nothing that it does is heard from the outside only: a file that
/// has left the site, or gone where changes are not looked at, is not written to there, since
/// another name of it may have stayed. One process.
class TreeMutator {
  public:
    TreeMutator(const TestSite& site, std::uint64_t seed);

    /// One operation, which may fail.
    void Act();

    /// More changes at once than the kernel keeps for a reader that does not read.
    void Flood() const;

  private:
    /// A name in an open directory; nothing happens to one whose directory is not there.
    struct Spot {
        SDK::FileDescriptor parent;
        std::string name;
        bool is_heard = true;  ///< a change there is one that the agent has to see
    };

    Spot InSite(const std::string& path) const;
    /// One that was there at first.
    Spot Known();
    Spot KnownDirectory();
    /// Perhaps a new one.
    Spot Any();
    /// A new name beside the site.
    Spot Beside();

    void ChangeContent();
    void ChangeKeepingSizeAndTime();
    void ChangeAttributes();
    void Remove();
    void Move();
    void MoveOut();
    void MoveIn();
    void Link();
    void PlantLink();
    void ChangeKind();
    void BuildTree(const Spot& top);
    void PlantTree();
    static void Exchange(const Spot& one, const Spot& other);
    static void Rename(const Spot& from, const Spot& to);

    const TestSite& site_;
    Random random_;
    std::string name_;  ///< no other mutator's
    int made_ = 0;
};

}  // namespace test
