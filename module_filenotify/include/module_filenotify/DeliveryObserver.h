#pragma once

#include <chrono>
#include <optional>

namespace Engine {

class FileNotifyMessage;

/// Hears what became of a message that was posted. Any thread.
class DeliveryObserver {
  public:
    DeliveryObserver() = default;
    DeliveryObserver(const DeliveryObserver&) = delete;
    DeliveryObserver& operator=(const DeliveryObserver&) = delete;
    virtual ~DeliveryObserver() = default;

    /// The message is being freed. `handling`: how long its receiver took; none when it never got
    /// it.
    virtual void MessageGone(const FileNotifyMessage& message,
                             std::optional<std::chrono::nanoseconds> handling) noexcept = 0;
};

}  // namespace Engine
