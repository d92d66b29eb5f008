#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "shield/FanotifyGroup.h"
#include "shield/Judge.h"
#include "shield/ShieldRule.h"
#include "shield/TreeGuard.h"

namespace Sentry {

/// Shields one directory as long as it lives. One thread reads the kernel's questions and opens
/// nothing in the tree; workers decide. An open that no worker has decided about in time is let
/// through.
class Guard {
  public:
    struct Settings {
        Judge::Settings judge;
        std::chrono::milliseconds limit{0};  ///< an open waits no longer
        std::string probe_file;              ///< the watchdog's
        pid_t watchdog = 0;
    };

    /// Check Problem().
    Guard(std::shared_ptr<const ShieldRule> rule, const Settings& settings, Judge::Healed healed,
          const Judge::Trouble& trouble);
    /// Lets all that wait go on.
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    /// Why it does not work, in words; else empty.
    const std::string& Problem() const { return problem_; }

    /// As Judge::SetHeld.
    void SetHeld(std::vector<std::string> held) { judge_.SetHeld(std::move(held)); }

    /// {"path","mode","complete","directories","healed","refused","passed","late",
    /// "last_refusal"}
    Json::Value Status() const;

  private:
    using Clock = std::chrono::steady_clock;

    /// An open or read that waits.
    struct Question {
        SDK::FileDescriptor file;
        pid_t process = 0;
        Clock::time_point asked;
        std::atomic<bool> is_answered{false};
    };

    void Read();
    void TakeQuestions();
    void Take(SDK::FileDescriptor file, pid_t process);
    bool PassesAtOnce(pid_t process) const;
    int LetLateThrough();
    void NoteLate(std::size_t count);
    void Work();
    void Answer(Question& question, bool allow) const;

    const std::shared_ptr<const ShieldRule> rule_;
    const Settings settings_;
    const Judge::Trouble trouble_;
    const FanotifyGroup group_;
    Judge judge_;
    std::string problem_;
    SDK::FileDescriptor stop_;                    ///< an eventfd
    std::deque<std::shared_ptr<Question>> open_;  ///< of the reader, oldest first
    std::atomic<std::uint64_t> late_{0};
    Clock::time_point told_;  ///< of the reader
    std::mutex mutex_;        ///< guards the two below
    std::deque<std::shared_ptr<Question>> waiting_;
    bool is_stopping_ = false;
    std::condition_variable changed_;
    std::unique_ptr<TreeGuard> tree_;
    std::vector<std::thread> workers_;
    std::thread reader_;
};

}  // namespace Sentry
