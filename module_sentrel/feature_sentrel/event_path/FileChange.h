#pragma once

#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace Engine {

/// Why a change is judged.
enum class ChangeOrigin {
    kLive,       ///< the kernel reported it just now
    kRetry,      ///< it had to wait, or its undo failed
    kReconcile,  ///< a comparison of the tree with its copy found it
    kGivenUp,    ///< its retries were given up; the next look tries it again
};

/// One change of one path.
struct FileChange {
    std::string watch_id;
    std::string path;  ///< without a trailing "/"
    std::uint32_t raw_mask = 0;
    std::chrono::steady_clock::time_point read_time{};  ///< zero: not known
    unsigned int attempt = 0;                           ///< how often its undo has failed
    ChangeOrigin origin = ChangeOrigin::kLive;
};

/// What was done about a change.
enum class Outcome {
    kNone,      ///< nothing: it needed nothing, or is only reported
    kRestored,  ///< restored from the copy
    kRemoved,   ///< it was foreign
    kHeld,      ///< an operator must decide
    kDeferred,  ///< it waits: nothing is destroyed before the first backup is complete
    kRestoreFailed,
    kRemovalFailed,
    kNotJudged,  ///< it could not be compared with its copy
};

inline bool IsFailure(Outcome outcome) {
    return outcome == Outcome::kRestoreFailed || outcome == Outcome::kRemovalFailed ||
           outcome == Outcome::kNotJudged;
}

/// Identifies an object independently of its names.
using ObjectId = std::pair<dev_t, ino_t>;

/// The result of handling a change.
struct Handling {
    Outcome outcome = Outcome::kNone;
    std::optional<ObjectId> other_names = {};  ///< the changed object may have other names
    bool vanished = false;                     ///< gone before it could be compared
    bool is_told = false;  ///< set by the caller: its failure has an alarm already

    /// Of two results for one change, a failure counts.
    void Add(Outcome next) {
        if (outcome == Outcome::kNone || next > outcome) outcome = next;
    }
};

/// The outcome's text in the note of an alarm.
inline const char* OutcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::kRestored:
            return "restored";
        case Outcome::kRemoved:
            return "removed";
        case Outcome::kHeld:
            return "held";
        case Outcome::kRestoreFailed:
            return "restore failed";
        case Outcome::kRemovalFailed:
            return "removal failed";
        default:
            return "reported only";
    }
}

/// Merges the event bits of a kept change with those of a later change of the same path. A later
/// arrival or loss replaces the kept bits; a change of content outweighs one of attributes. Moves
/// become arrivals or losses (WithoutMoves).
std::uint32_t MergedMask(std::uint32_t kept, std::uint32_t later);

/// The event bits with a move replaced by what it is for the one path: an arrival or a loss.
std::uint32_t WithoutMoves(std::uint32_t mask);

}  // namespace Engine
