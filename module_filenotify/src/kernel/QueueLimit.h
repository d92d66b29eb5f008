#pragma once

#include <Poco/Logger.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Engine::FileNotify {

/// Raises the kernel's limit of queued events while an inotify instance is opened. An instance
/// keeps the limit of that moment, so the old value is restored at once: other programs are not
/// affected and a crash leaves nothing behind. Owned by FileNotifyTask. Not thread-safe.
class QueueLimit {
  public:
    static constexpr const char* kFile = "/proc/sys/fs/inotify/max_queued_events";

    /// `file`: holds the limit. `wanted`: number of events; 0 leaves the limit unchanged.
    QueueLimit(std::string file, std::uint32_t wanted, Poco::Logger* logger)
        : file_(std::move(file)), wanted_(wanted), logger_(logger) {}

    /// Calls `open` while the limit is raised and returns its result. When the limit cannot be
    /// raised, `open` is called all the same; the reason is logged once and kept in Problem.
    int OpenRaised(const std::function<int()>& open);

    /// The limit at the last call of `open`, in events; 0: unknown.
    std::uint32_t InForce() const { return in_force_; }

    /// Why the limit is below the wanted one; empty when it is not.
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
