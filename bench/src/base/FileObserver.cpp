// Owns an inotify descriptor with one watch.
#include "base/FileObserver.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>

namespace Bench {
namespace {

/// Poll interval beside the events: the watch ends when the directory is removed.
constexpr milliseconds kPollInterval{5};

/// The last step of a restore: a rename, a link, or a change of the time.
constexpr unsigned kLastSteps = IN_MOVED_TO | IN_CREATE | IN_ATTRIB | IN_CLOSE_WRITE;

}  // namespace

FileObserver::FileObserver(std::string path)
    : path_(std::move(path)), inotify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    const std::string directory = path_.substr(0, path_.rfind('/'));
    ::inotify_add_watch(inotify_, directory.c_str(), kLastSteps);
}

FileObserver::~FileObserver() {
    ::close(inotify_);
}

std::optional<Clock::time_point> FileObserver::AwaitRestore(const FileState& file,
                                                            milliseconds deadline) const {
    const auto end = Clock::now() + deadline;
    while (!IsRestored(path_, file)) {
        if (Clock::now() >= end) return std::nullopt;
        AwaitReadable(inotify_, kPollInterval);
        std::array<char, 4096> events;
        while (::read(inotify_, events.data(), events.size()) > 0) continue;
    }
    return Clock::now();
}

}  // namespace Bench
