#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/stat.h>

#include <cstddef>
#include <ctime>
#include <functional>
#include <string>

#include "base/SentrelDirRule.h"
#include "progress/OpenObjects.h"
#include "rsync/RsyncExclusions.h"

namespace Engine {

class RuleAnchors;

/// Holds a protected path against its copy, object by object, where rsync could not copy all of it:
/// copies by itself what is missing, and tells what stays open.
///
/// Only what has stood there unchanged since the round began is copied, or else is open. What came,
/// changed or went later is judged by its events, as ever. Looks at type, size and time in seconds
/// of each object of both sides, as rsync does. Walks by held descriptors and follows no link;
/// below kDeepest levels a directory is open as a whole. One use; the backup task's thread.
class CopyComparison {
  public:
    static constexpr int kDeepest = 128;  ///< three descriptors a level

    enum class Outcome {
        kCompared,
        kNoCopy,       ///< the protected path or its copy as a whole is not there; errno in `error`
        kInterrupted,  ///< `is_over` said so
    };
    struct Result {
        Outcome outcome = Outcome::kNoCopy;
        int error = 0;
        std::size_t copied = 0;  ///< objects
        OpenObjects open = {};
    };
    /// What becomes of a changed object that has no equal copy.
    enum class Changed {
        kIsJudgedByEvents,
        kStaysOpen,  ///< it is open already
    };

    /// `round_begin`: when the round's first copy was begun. `is_over`: asked often; true ends it.
    /// `anchors` is borrowed.
    CopyComparison(RuleAnchors& anchors, const SentrelDirRule& rule, std::timespec round_begin,
                   std::function<bool()> is_over);

    /// The whole protected path.
    Result Run();

    /// Again for an open object `below` the protected path.
    Result RunAgain(const std::string& below);

  private:
    struct Level {
        int live;
        int copy;
        std::string below;  ///< "" is the protected path itself
        int depth;
    };

    bool IsFileCopied(const Level& level, const std::string& name);
    Result Conclude();
    bool IsUnchanged(const struct stat& info) const;
    bool IsOver();
    void CompareDirectory(const Level& level, const struct stat& found);
    void CompareLiveNames(const Level& level);
    void CompareCopyNames(const Level& level);
    void CompareObject(const Level& level, const std::string& name);
    void Descend(const Level& level, const std::string& name, const struct stat& live);
    void CopyMissing(const Level& level, const std::string& name, const struct stat& live,
                     bool has_copy);
    void DropFromCopy(const Level& level, const std::string& name);
    std::string Path(const Level& level, const std::string& name) const;
    void Open(const std::string& below, int error);

    RuleAnchors& anchors_;
    const SentrelDirRule rule_;
    const RsyncExclusions exclusions_;
    const std::timespec round_begin_;
    const std::function<bool()> is_over_;
    Changed changed_ = Changed::kIsJudgedByEvents;
    bool is_interrupted_ = false;
    int root_error_ = 0;
    std::size_t looks_ = 0;
    Result result_;
};

}  // namespace Engine
