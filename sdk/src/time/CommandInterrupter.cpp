// Owns the event descriptor; each thread has a pointer to its own interrupter. Must not end
// commands (RunningCommand does). Thread-safe.
#include "sdk/time/CommandInterrupter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace SDK {

namespace {

thread_local CommandInterrupter* current_interrupter = nullptr;

}  // namespace

CommandInterrupter::CommandInterrupter() : event_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

CommandInterrupter::~CommandInterrupter() {
    if (event_fd_ >= 0) ::close(event_fd_);
}

void CommandInterrupter::Interrupt() {
    const std::uint64_t one = 1;
    // The write fails only when the counter is full, and then the descriptor is readable anyway.
    [[maybe_unused]] const ssize_t written = ::write(event_fd_, &one, sizeof(one));
}

void CommandInterrupter::Reset() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(event_fd_, &count, sizeof(count));
}

CommandInterrupter::Scope::Scope(CommandInterrupter& interrupter) : previous_(current_interrupter) {
    current_interrupter = &interrupter;
}

CommandInterrupter::Scope::~Scope() {
    current_interrupter = previous_;
}

int CommandInterrupter::CurrentDescriptor() {
    return current_interrupter == nullptr ? -1 : current_interrupter->Descriptor();
}

bool CommandInterrupter::IsCurrentInterrupted() {
    pollfd event{CurrentDescriptor(), POLLIN, 0};  // poll(2) ignores a negative descriptor
    return ::poll(&event, 1, 0) > 0;
}

}  // namespace SDK
