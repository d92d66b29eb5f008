#pragma once

#include <Poco/Logger.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Engine::FileNotify {

/// The kernel's limit of events that wait in one inotify instance. An instance keeps the limit that
/// was in force when it was made, so it is raised for that moment only and put back at once: no
/// other program is given it, and however the agent ends there is nothing to undo. Task's thread
/// only.
class QueueLimit {
  public:
    static constexpr const char* kFile = "/proc/sys/fs/inotify/max_queued_events";

    /// `file` is where the kernel keeps the limit; `wanted` 0: it is left alone.
    QueueLimit(std::string file, std::uint32_t wanted, Poco::Logger* logger)
        : file_(std::move(file)), wanted_(wanted), logger_(logger) {}

    /// Calls `open` while the limit is at least the one wanted, or as near as can be had; what
    /// `open` gives. A limit that cannot be raised is logged, once, and told by Problem.
    int OpenRaised(const std::function<int()>& open);

    /// What was in force when `open` was called last; 0: not known.
    std::uint32_t InForce() const { return in_force_; }

    /// Why it is less than wanted; empty when it is not.
    const std::string& Problem() const { return problem_; }

  private:
    std::uint32_t Read() const;
    int Write(std::uint32_t value) const;
    void Fail(std::uint32_t former, int error);

    const std::string file_;
    const std::uint32_t wanted_;
    Poco::Logger* logger_;
    std::uint32_t in_force_ = 0;
    std::string problem_;
};

}  // namespace Engine::FileNotify
