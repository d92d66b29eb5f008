#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/fanotify.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "who/kernel/WatchedTrees.h"

namespace Sentry {

/// The kernel's events of changes in the protected paths, from a fanotify group of its own, which
/// only tells and never makes anybody wait. Not thread-safe.
class ObjectEvents {
  public:
    struct Event {
        std::string path;
        pid_t pid = 0;
        std::uint32_t ahead = 0;  ///< events before it in `bytes`
    };

    /// Check Problem().
    ObjectEvents();

    /// Why the kernel refuses; empty when it does not.
    const std::string& Problem() const { return problem_; }

    /// The group. EventReader reads it.
    int Descriptor() const { return group_.Get(); }

    WatchedTrees& Trees() { return *trees_; }
    const WatchedTrees& Trees() const { return *trees_; }

    /// Appends the events of `bytes`, which the group gave.
    void Parse(const std::vector<char>& bytes, Nanoseconds now, std::vector<Event>& events);

    /// How often the kernel dropped events because too many waited.
    std::uint64_t Overflows() const { return overflows_; }

  private:
    void Take(const fanotify_event_metadata& data, const char* event, std::uint32_t ahead,
              Nanoseconds now, std::vector<Event>& events);

    SDK::FileDescriptor group_;
    std::unique_ptr<WatchedTrees> trees_;
    std::string problem_;
    std::uint64_t overflows_ = 0;
};

}  // namespace Sentry
