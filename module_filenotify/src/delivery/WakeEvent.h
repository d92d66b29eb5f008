#pragma once

#include <sdk/files/FileDescriptor.h>

namespace Engine::FileNotify {

/// Wakes the task's thread from any thread. Shared with whoever may wake, so that it is there for
/// messages that are freed after the task has ended.
class WakeEvent {
  public:
    WakeEvent();

    /// Readable from a Wake on until Drain; -1 when none could be had. Nothing wakes then, and what
    /// waits is looked at once a second.
    int Fd() const { return event_.Get(); }

    void Wake() const noexcept;
    void Drain() const noexcept;

  private:
    SDK::FileDescriptor event_;
};

}  // namespace Engine::FileNotify
