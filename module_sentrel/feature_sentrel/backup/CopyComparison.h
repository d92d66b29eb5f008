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

class ReplacedCopies;
class RuleAnchors;

/// Compares a protected path with its copy, object by object, where rsync could not copy all of it.
/// Copies missing objects and reports those that stay open.
///
/// Only an object that has not changed since the round began is copied or becomes open. The events
/// of later changes handle these. Compares type, size and time in seconds, as rsync does. Walks by
/// held descriptors and follows no link; below kDeepest levels a directory is open as a whole. For
/// one use; backup task's thread.
class CopyComparison {
  public:
    static constexpr int kDeepest = 128;  ///< three descriptors a level

    enum class Outcome {
        kCompared,
        kNoCopy,       ///< the protected path or its copy cannot be opened; errno in `error`
        kInterrupted,  ///< `is_over` returned true
    };
    struct Result {
        Outcome outcome = Outcome::kNoCopy;
        int error = 0;
        std::size_t copied = 0;  ///< objects
        OpenObjects open = {};
    };
    /// How a changed object without an equal copy is treated.
    enum class Changed {
        kIsJudgedByEvents,
        kStaysOpen,  ///< it is open already
    };

    /// `round_begin`: when the round's first copy began. `is_over` is called often; true ends the
    /// comparison.
    /// `anchors` and `replaced` are borrowed.
    CopyComparison(RuleAnchors& anchors, const SentrelDirRule& rule, ReplacedCopies& replaced,
                   std::timespec round_begin, std::function<bool()> is_over);

    /// Compares the whole protected path.
    Result Run();

    /// Compares an open object `below` the protected path again.
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
    ReplacedCopies& replaced_;
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
