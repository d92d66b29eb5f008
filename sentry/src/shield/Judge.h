#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "shield/FanotifyGroup.h"
#include "shield/Healer.h"
#include "shield/Place.h"
#include "shield/ShieldRule.h"

namespace Sentry {

/// Decides about opens and reads in one shielded directory. Thread-safe.
class Judge {
  public:
    struct Settings {
        pid_t agent = 0;  ///< it and its descendants see files as they are
        std::uint64_t most_bytes = 0;
        unsigned int most_percent = 0;
        std::vector<std::string> held = {};  ///< at the beginning, as of SetHeld
    };
    /// Tells the agent of a healed page, before it is overwritten. `content` is what was tampered;
    /// -1: it could not be kept.
    using Healed = std::function<void(const std::string& path, int content)>;
    /// Tells the agent what went wrong.
    using Trouble = std::function<void(const std::string& what)>;

    struct Counts {
        std::atomic<std::uint64_t> healed{0};
        std::atomic<std::uint64_t> refused{0};
        std::atomic<std::uint64_t> passed{0};  ///< not as approved, and let through
    };

    /// Borrows `group`.
    Judge(std::shared_ptr<const ShieldRule> rule, const FanotifyGroup& group,
          const Settings& settings, Healed healed, Trouble trouble);

    /// True: the open or read of `process` goes on. `file` is its file. Files that are as approved
    /// are not asked about again until they change. May take as long as reading the file.
    bool Allows(int file, pid_t process);

    /// Where the directory lies now. Null until the first call.
    void SetRoot(std::shared_ptr<const SDK::PathAnchor> root);

    /// What is not guarded meanwhile, as ShieldRule::ReadHeld gives it.
    void SetHeld(std::vector<std::string> held);

    const Counts& Counted() const { return counts_; }
    /// The mode in force: kMonitor also when too much could not be healed.
    /// The file that was refused last, and why; empty: none.
    std::string LastRefusal() const;
    ShieldMode Mode() const { return is_fallen_back_ ? ShieldMode::kMonitor : rule_->mode; }

  private:
    enum class Verdict { kApproved, kNotGuarded, kChanged, kForeign, kUnknown };

    Verdict Look(int file, Place& place, Baseline::ManifestEntry& approved);
    Verdict Compare(int file, const Baseline::ManifestEntry& approved) const;
    /// Empty, or why not.
    std::string Heal(int file, const Place& place, const Baseline::ManifestEntry& approved);
    bool Refuse(const Place& place, const std::string& why);
    bool IsOfAgent(pid_t process) const;
    void NoteFailure(const std::string& below, const std::string& why);
    bool IsHeld(const std::string& below) const;
    std::shared_ptr<const SDK::PathAnchor> Root() const;

    static constexpr std::size_t kTurns = 64;

    const std::shared_ptr<const ShieldRule> rule_;
    const FanotifyGroup& group_;
    const Settings settings_;
    const Healed healed_;
    const Trouble trouble_;
    Counts counts_;
    std::atomic<bool> is_fallen_back_{false};
    std::array<std::mutex, kTurns> turns_;  ///< one file is compared and healed by one thread
    mutable std::mutex mutex_;              ///< guards all below
    std::shared_ptr<const SDK::PathAnchor> root_;
    std::vector<std::string> held_;
    std::string last_refusal_;
    std::set<std::string> failed_;  ///< pages that could not be healed
};

}  // namespace Sentry
