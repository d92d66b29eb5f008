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

/// How a change came to be judged.
enum class ChangeOrigin {
    kLive,       ///< the kernel told of it just now
    kRetry,      ///< it had to wait, or could not be undone
    kReconcile,  ///< a comparison of the tree with its copy found it
};

/// One change of one path, as the steps of its handling hand it on.
struct FileChange {
    std::string watch_id;
    std::string path;  ///< without a trailing "/"
    std::uint32_t raw_mask = 0;
    std::chrono::steady_clock::time_point read_time{};  ///< zero: not known
    unsigned int attempt = 0;                           ///< so often it could not be undone
    ChangeOrigin origin = ChangeOrigin::kLive;
};

/// What was done about a change.
enum class Outcome {
    kNone,      ///< nothing: it needed nothing, or is only reported
    kRestored,  ///< put back from the copy
    kRemoved,   ///< it was foreign
    kDeferred,  ///< nothing is destroyed before the first backup is complete
    kRestoreFailed,
    kRemovalFailed,
    kNotJudged,  ///< it could not be compared with its copy
};

/// An object, whatever its names.
using ObjectId = std::pair<dev_t, ino_t>;

/// What came of the handling of a change.
struct Handling {
    Outcome outcome = Outcome::kNone;
    std::optional<ObjectId> other_names = {};  ///< the changed object may have other names
    bool vanished = false;                     ///< gone before it could be looked at

    /// Of two undoings of one change the failure counts.
    void Add(Outcome next) {
        if (outcome == Outcome::kNone || next > outcome) outcome = next;
    }
};

/// How the outcome is told beside an alarm.
inline const char* OutcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::kRestored:
            return "restored";
        case Outcome::kRemoved:
            return "removed";
        case Outcome::kRestoreFailed:
            return "restore failed";
        case Outcome::kRemovalFailed:
            return "removal failed";
        default:
            return "reported only";
    }
}

/// The event bits of a change that is kept, brought up to date by a later one of the same path. An
/// arrival or a loss tells how things stand now; a change of content outweighs one of attributes.
/// Moves are told as the arrival or the loss that they are for the one path.
std::uint32_t MergedMask(std::uint32_t kept, std::uint32_t later);

/// The event bits with a move told as the arrival or the loss that it is for the one path.
std::uint32_t WithoutMoves(std::uint32_t mask);

}  // namespace Engine
