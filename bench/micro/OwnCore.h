#pragma once

#include <NotifyCore.h>
#include <sys/inotify.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

inline double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// A temporary directory. The destructor removes it.
class TempTree {
  public:
    TempTree() : path_((std::filesystem::temp_directory_path() / "bench.XXXXXX").string()) {
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
    }
    ~TempTree() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;
    const std::string& Path() const { return path_; }

  private:
    std::string path_;
};

/// The file-notify module without the framework, with one watch on a tree. The receiver's queue is
/// always full.
class OwnCore {
  public:
    explicit OwnCore(const std::string& root)
        : core_(
              std::make_unique<Engine::FileNotify::InotifyDescriptor>(),
              [](const std::string&, Framework::Message*) { return false; }, status_,
              &Poco::Logger::get("bench"), std::chrono::seconds(3)) {
        Engine::FileNotify::WatchRequest request;
        request.subscription = std::make_shared<Engine::FileNotify::Subscription>("receiver", root);
        for (const auto& part : std::filesystem::path(root).relative_path()) {
            request.components.push_back(part.string());
        }
        request.mask =
            IN_CREATE | IN_MODIFY | IN_DELETE | IN_ATTRIB | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF;
        request.recursive = request.report_directories = request.rewatch = true;
        requests_.push_back(request);
    }

    /// Opens inotify and watches the whole tree. Returns the time in milliseconds.
    double WalkUntilReady() {
        const auto start = Clock::now();
        core_.Open();
        core_.Apply(requests_);
        while (Step()) {
        }
        return MillisecondsSince(start);
    }

    /// One pass, as the task runs it. Returns false when there is nothing left to do.
    bool Step() {
        core_.ReadEvents();
        core_.Work();
        return core_.IdleTime().count() == 0;
    }

    bool IsReady(int directories) {
        core_.PublishStatus();
        const Json::Value watch = status_.Watches()["watches"][0];
        return watch["state"] == "ready" && watch["directories"].asInt() == directories;
    }

    Engine::FileNotify::NotifyCore& Core() { return core_; }
    std::uint64_t Received() { return status_.Counts().events_received; }
    std::uint64_t Overflows() { return status_.Counts().overflows; }

  private:
    Engine::FileNotify::StatusPublisher status_;
    Engine::FileNotify::NotifyCore core_;
    std::vector<Engine::FileNotify::WatchRequest> requests_;
};

}  // namespace bench
