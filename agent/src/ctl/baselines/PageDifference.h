#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "ctl/baselines/ApprovedStates.h"

namespace Ctl {

/// What differs between one object of a site and its backup copy. Not thread-safe.
class PageDifference {
  public:
    /// Borrows `part`, whose `below` is the object.
    explicit PageDifference(const ApprovedPart& part) : part_(part) {}

    /// Blocks; reads both contents. False, with a sentence in Problem, when they cannot be
    /// compared.
    bool Compare();

    /// Lines without line ends, of any bytes; none: equal.
    const std::vector<std::string>& Lines() const { return lines_; }
    const std::string& Problem() const { return problem_; }

    /// The copy is not what was approved, so that the difference says little. After Compare.
    bool IsCopyAltered() const { return is_copy_altered_; }

  private:
    /// An object as its open parent directory and its name there.
    struct Object {
        std::string path;
        SDK::FileDescriptor directory;
        std::string name;
        struct stat info {};
        bool is_there = false;
    };

    bool Open(const std::string& root, Object& object);
    bool CompareObjects(const Object& copy, const Object& page);
    void CompareExtendedAttributes(const Object& copy, const Object& page);
    bool CompareFiles(const Object& copy, const Object& page);
    bool CompareLinks(const Object& copy, const Object& page);
    bool RunDiff(int copy, const Object& copied, int page, const Object& present);
    void CheckCopy(const Object& copy);
    bool Fail(const std::string& problem);

    const ApprovedPart& part_;
    std::vector<std::string> lines_;
    std::string problem_;
    bool is_copy_altered_ = false;
};

}  // namespace Ctl
