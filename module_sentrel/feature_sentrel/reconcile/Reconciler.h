#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "base/SentrelDirRule.h"
#include "feature_sentrel/event_path/FileChange.h"
#include "feature_sentrel/reconcile/ChangeScan.h"

namespace Engine {

/// Finds what inotify does not tell: changes through a hard link elsewhere, through a mapping that
/// stays open, or through a mount of which no events come. Looks through each protected path once a
/// period, in slices that take at most a hundredth of the time, and has what has changed since the
/// last look judged as if an event had told it. Owned by the inotify task. Not thread-safe.
class Reconciler {
  public:
    using Clock = std::chrono::steady_clock;

    /// When the copies that a path is compared with were begun.
    struct Basis {
        std::uint64_t round = 0;
        std::timespec begun{};
        unsigned attribute_kinds = 0;  ///< that the copies have
    };
    /// One look through one path.
    struct Look {
        std::string real_path;
        std::chrono::milliseconds duration{0};
        std::size_t seen = 0;   ///< objects
        std::size_t found = 0;  ///< changes that were undone, or could not be
    };
    /// What it needs of its owner, which outlives it.
    struct Owner {
        const std::map<std::string, SentrelDirRule>& rules;  ///< by watch id
        /// The rule's held directories; null when they must not be used now.
        std::function<std::shared_ptr<const AnchoredRule>(const SentrelDirRule&)> places = {};
        /// Nothing while the rule has no complete copy to compare with.
        std::function<std::optional<Basis>(const SentrelDirRule&)> basis = {};
        std::function<bool(const SentrelDirRule&, const std::string& path)> ignored = {};
        /// Judges the change and has it undone.
        std::function<Handling(const FileChange&)> judge = {};
        /// True when somebody else waits for the thread.
        std::function<bool()> should_pause = {};
        /// A look through the path of that watch begins.
        std::function<void(const std::string& watch_id)> begun = {};
        std::function<void(const Look&)> ended = {};
    };

    static constexpr std::chrono::seconds kDefaultPeriod{60};
    static constexpr std::size_t kMostSoon = 1024;  ///< paths that wait for a soon look

    explicit Reconciler(Owner owner) : owner_(std::move(owner)) {}

    /// From the begin of one look to the next; zero: never.
    void SetPeriod(std::chrono::seconds period) { period_ = period; }

    /// Has the object at `path`, with what is below it, looked at soon: an event told of it, but
    /// the event handling leaves it out. Where too many wait, the next look through the whole path
    /// begins at once instead.
    void LookSoon(const std::string& watch_id, const std::string& path);

    /// Has everything that has changed since the round began judged again by the next look, which
    /// begins at once.
    void LookAgain(const std::string& watch_id) { progress_.erase(watch_id); }

    /// Does one slice if one is due as of `now`, and one of the soon looks. True when more of these
    /// wait.
    bool Work(Clock::time_point now);

    /// Ends the look under way and forgets all earlier ones.
    void Forget();

  private:
    struct Progress {
        std::uint64_t round = 0;
        std::timespec since{};
        Clock::time_point due{};
    };

    void WorkThrough(Clock::time_point now);
    bool BeginSoon();
    ChangeScan::Owner ScanOwner(const std::string& watch_id, const SentrelDirRule& rule,
                                ChangeOrigin origin);
    bool BeginNext(Clock::time_point now);
    void Begin(const std::string& watch_id, const SentrelDirRule& rule, Clock::time_point now);
    bool Step();
    void End();
    bool HasClockJumped();

    const Owner owner_;
    std::chrono::seconds period_ = kDefaultPeriod;
    std::map<std::string, Progress> progress_;  ///< by watch id
    std::string scanning_;                      ///< the watch id of scan_
    std::optional<ChangeScan> scan_;
    Look look_;
    std::timespec look_began_{};
    Clock::time_point next_slice_{};
    std::set<std::pair<std::string, std::string>> soon_;  ///< watch id, path
    std::optional<ChangeScan> soon_scan_;
    std::string soon_watch_;  ///< the watch id of soon_scan_
    std::optional<std::chrono::milliseconds> clock_offset_;
};

}  // namespace Engine
