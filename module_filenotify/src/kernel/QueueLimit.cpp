// Owns: nothing of the kernel; it restores the limit at once. Must not own: the inotify instance
// (InotifyDescriptor). Thread: the task's. Ownership passes: never.

#include "kernel/QueueLimit.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/FileUtils.h>
#include <sdk/log/Log.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <system_error>

namespace Engine::FileNotify {

int QueueLimit::OpenRaised(const std::function<int()>& open) {
    const std::uint32_t former = Read();
    const bool is_short = wanted_ > 0 && former < wanted_;
    const int error = is_short ? Write(wanted_) : 0;
    in_force_ = Read();
    const int result = open();
    if (!is_short) return result;
    if (in_force_ < wanted_) {
        Fail(former, error);
        return result;
    }
    problem_.clear();
    // Keep a value that somebody else has written meanwhile.
    if (Read() == wanted_ && Write(former) != 0) {
        SDK_LOG(logger_, PRIO_WARNING, "fs.inotify.max_queued_events stays at %u instead of %u.",
                wanted_, former);
    }
    return result;
}

void QueueLimit::Fail(std::uint32_t former, int error) {
    std::string problem = "fs.inotify.max_queued_events is " + std::to_string(former) +
                          " and cannot be raised to " + std::to_string(wanted_);
    if (error != 0) problem += ": " + std::generic_category().message(error);
    if (problem == problem_) return;
    problem_ = std::move(problem);
    SDK_LOG(logger_, PRIO_WARNING, "%s; bursts overflow the queue sooner.", problem_);
}

std::uint32_t QueueLimit::Read() const {
    constexpr long kLongest = 32;
    std::string text;
    std::uint32_t value = 0;
    if (SDK::FileUtils::ReadFile(file_, text, kLongest) != 0) return 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    return parsed.ec == std::errc() ? value : 0;
}

int QueueLimit::Write(std::uint32_t value) const {
    const SDK::FileDescriptor file(::open(file_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!file.IsOpen()) return errno;
    const std::string text = std::to_string(value) + "\n";
    const auto written = ::write(file.Get(), text.data(), text.size());
    return written == static_cast<ssize_t>(text.size()) ? 0 : errno;
}

}  // namespace Engine::FileNotify
