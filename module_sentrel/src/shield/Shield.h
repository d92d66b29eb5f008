#pragma once

#include <json/value.h>
#include <sdk/files/FileDescriptor.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace Engine {

/// Which protected directories are to be shielded by the sentry, kept on the disk, and what the
/// sentry told that has no alarm yet. Owned by ModuleState. Thread-safe.
class Shield {
  public:
    using Clock = std::chrono::steady_clock;

    /// Reads what is kept below the installation.
    void Load();

    /// "off", "monitor", "heal" or "deny".
    static bool IsMode(const std::string& mode);
    std::string ModeOf(const std::string& real_path) const;
    /// 0, or -1 (errno): nothing changed.
    int SetMode(const std::string& real_path, const std::string& mode);

    /// Nothing is shielded for that long: what is approved is about to change. Counts from the last
    /// call.
    void Suspend(std::chrono::milliseconds time);
    bool IsSuspended() const;

    /// The number of these rules for the sentry. It grows when they are not the last ones.
    std::uint64_t SerialOf(const Json::Value& rules);

    /// What the sentry told.
    struct Told {
        std::string real_path;
        std::string healed;           ///< the page; empty: `trouble` is told
        SDK::FileDescriptor content;  ///< what was tampered; not open: it could not be kept
        std::string trouble;
    };
    /// Counts what does not fit; a content that does not fit is left out.
    void Tell(Told told);
    std::optional<Told> Take();
    /// The number of those that did not fit since the last call.
    std::uint64_t TakeDropped();

  private:
    static constexpr std::size_t kMostTold = 4096;
    static constexpr std::uint64_t kMostContent = 64ULL * 1024 * 1024;  // contents are in memory

    int Write() const;

    mutable std::mutex mutex_;                  ///< guards all below
    std::map<std::string, std::string> modes_;  ///< by real_path; without those that are off
    Clock::time_point suspended_until_;
    Json::Value rules_;
    std::uint64_t serial_ = 1;
    std::deque<Told> told_;
    std::uint64_t told_bytes_ = 0;
    std::uint64_t dropped_ = 0;
};

}  // namespace Engine
