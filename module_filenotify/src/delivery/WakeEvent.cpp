#include "delivery/WakeEvent.h"

#include <sys/eventfd.h>

namespace Engine::FileNotify {

WakeEvent::WakeEvent() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void WakeEvent::Wake() const noexcept {
    // It fails only when the event is readable already.
    static_cast<void>(::eventfd_write(event_.Get(), 1));
}

void WakeEvent::Drain() const noexcept {
    eventfd_t wakes = 0;
    static_cast<void>(::eventfd_read(event_.Get(), &wakes));
}

}  // namespace Engine::FileNotify
