// The cheapest walk: one open, one watch by path and one getdents pass per directory. A walk by
// descriptors takes a sixth longer. Owns the queue of directories; a mutex protects it.
#include "base/RawWalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace Bench {

namespace {

constexpr std::uint32_t kMask = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::size_t kTakenAtOnce = 32;

class Walk {
  public:
    Walk(int inotify, const std::string& root) : inotify_(inotify), waiting_{root} {}

    std::size_t Run(int threads) {
        std::vector<std::thread> helpers;
        for (int i = 1; i < threads; ++i) helpers.emplace_back([this] { Work(); });
        Work();
        for (std::thread& helper : helpers) helper.join();
        return count_;
    }

  private:
    void Work() {
        std::vector<std::string> taken;
        std::vector<std::string> found;
        while (Exchange(taken, found)) {
            for (const std::string& path : taken) Visit(path, found);
        }
    }

    // Adds found directories and takes the next ones; false when the walk is complete.
    bool Exchange(std::vector<std::string>& taken, std::vector<std::string>& found) {
        std::unique_lock lock(mutex_);
        for (std::string& path : found) waiting_.push_back(std::move(path));
        found.clear();
        if (!taken.empty()) --busy_;
        taken.clear();
        changed_.notify_all();
        changed_.wait(lock, [this] { return !waiting_.empty() || busy_ == 0; });
        if (waiting_.empty()) return false;
        ++busy_;
        while (!waiting_.empty() && taken.size() < kTakenAtOnce) {
            taken.push_back(std::move(waiting_.back()));
            waiting_.pop_back();
        }
        return true;
    }

    void Visit(const std::string& path, std::vector<std::string>& found) {
        const SDK::FileDescriptor dir(
            ::openat(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!dir.IsOpen() || ::inotify_add_watch(inotify_, path.c_str(), kMask) < 0) return;
        ++count_;
        alignas(dirent64) char bytes[32768];
        for (long got; (got = ::syscall(SYS_getdents64, dir.Get(), bytes, sizeof bytes)) > 0;) {
            for (long at = 0; at < got;) {
                const auto* entry = reinterpret_cast<const dirent64*>(bytes + at);
                at += entry->d_reclen;
                if (entry->d_type != DT_DIR || entry->d_name[0] == '.') continue;
                found.push_back(path + "/" + entry->d_name);
            }
        }
    }

    const int inotify_;
    std::atomic<std::size_t> count_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> waiting_;
    int busy_ = 0;
};

}  // namespace

std::size_t RawWalk(int inotify, const std::string& root, int threads) {
    return Walk(inotify, root).Run(threads);
}

}  // namespace Bench
