// A walk as cheap as the kernel allows: one open, one watch, one pass of getdents a directory, no
// path longer than a name. Owns its queue of directories; the threads share it under a mutex.
#include "guards/RawWatch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace Bench {
namespace {

constexpr std::uint32_t kMask = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

class Walk {
  public:
    explicit Walk(int inotify) : inotify_(inotify) {}

    void Run(const std::string& root, int threads) {
        open_.push_back(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        std::vector<std::thread> others;
        for (int i = 1; i < threads; ++i) others.emplace_back([this] { Work(); });
        Work();
        for (std::thread& other : others) other.join();
    }

  private:
    /// Takes a directory that was opened; -1 when the walk is over.
    int Take() {
        std::unique_lock lock(mutex_);
        ++idle_;
        more_.wait(lock, [&] { return !open_.empty() || busy_ == 0; });
        --idle_;
        if (open_.empty()) return -1;
        const int fd = open_.back();
        open_.pop_back();
        ++busy_;
        return fd;
    }

    void Done() {
        const std::lock_guard lock(mutex_);
        if (--busy_ == 0 && open_.empty()) more_.notify_all();
    }

    /// To another thread when one waits and there is enough, else to this one's own stack.
    bool HandOver(int fd) {
        if (idle_ == 0) return false;
        {
            const std::lock_guard lock(mutex_);
            open_.push_back(fd);
        }
        more_.notify_one();
        return true;
    }

    void Work() {
        for (int fd = Take(); fd >= 0; fd = Take()) {
            List(fd);
            Done();
        }
    }

    void List(int fd) {
        const std::string self = "/proc/self/fd/" + std::to_string(fd);
        if (::inotify_add_watch(inotify_, self.c_str(), kMask) < 0) {
            ::close(fd);
            return;
        }
        DIR* directory = ::fdopendir(fd);
        while (const dirent* entry = ::readdir(directory)) {
            const bool named = entry->d_name[0] != '.';
            if (entry->d_type != DT_DIR || !named) continue;
            const int child =
                ::openat(fd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0 && !HandOver(child)) List(child);
        }
        ::closedir(directory);
    }

    const int inotify_;
    std::mutex mutex_;
    std::condition_variable more_;
    std::vector<int> open_;
    std::atomic<int> idle_{0};
    int busy_ = 0;
};

}  // namespace

std::string RawWatch::Name() const {
    return threads_ == 1 ? "raw walk and watch" : "raw, two threads";
}

bool RawWatch::Start(const Site& site, const GuardSettings& settings) {
    const std::string said = site.scratch + "/raw.out";
    Command command;
    command.arguments = {machine_.self, "raw", site.live, std::to_string(threads_)};
    command.environment = PlainEnvironment(machine_);
    command.output = said;
    main_ = Child::Start(command);
    const bool ready = WaitUntil(settings.deadline, microseconds(500),
                                 [&] { return !Runs() || !ReadFile(said).empty(); });
    if (!ready || !Runs()) return Fail("the walk did not end");
    Ready(Clock::now());
    ready_ms_ = std::stod(ReadFile(said));  // its own measure, without the start of the process
    return true;
}

int RunRawWatch(const std::string& root, int threads) {
    const auto start = Clock::now();
    const int inotify = ::inotify_init1(IN_CLOEXEC);
    if (inotify < 0) return 1;
    Walk(inotify).Run(root, threads);
    const std::string text = std::to_string(MsSince(start)) + "\n";
    if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) return 1;
    std::array<char, 65536> buffer;
    while (::read(inotify, buffer.data(), buffer.size()) > 0) continue;
    return 1;
}

}  // namespace Bench
