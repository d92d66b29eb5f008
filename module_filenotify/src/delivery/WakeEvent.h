#pragma once

#include <sdk/files/FileDescriptor.h>

namespace Engine::FileNotify {

/// An eventfd that wakes the task's thread. Shared with the messages, because some are freed after
/// the task ends. Thread-safe.
class WakeEvent {
  public:
    WakeEvent();

    /// Readable from Wake until Drain. -1 when no eventfd could be created; then the task only
    /// wakes from its timeout, once a second.
    int Fd() const { return event_.Get(); }

    void Wake() const noexcept;
    void Drain() const noexcept;

  private:
    SDK::FileDescriptor event_;
};

}  // namespace Engine::FileNotify
