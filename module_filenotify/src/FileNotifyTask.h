#pragma once

#include <framework/Task.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "NotifyCore.h"
#include "kernel/QueueLimit.h"
#include "requests/WatchRequestQueue.h"

namespace Engine {

/// The task "filenotify_task". Accepts watch requests, waits for kernel events and runs NotifyCore.
/// Reference-counted; shared by the module and the framework.
class FileNotifyTask : public Framework::Task {
  public:
    static constexpr const char* kId = "filenotify_task";

    struct Settings {
        std::chrono::milliseconds retry_after{
            3000};  ///< interval of retries for unwatched directories
        /// Wanted capacity of the kernel's event queue; 0: the kernel's own limit.
        std::uint32_t max_queued_events = 0;
        std::string queue_limit_file = FileNotify::QueueLimit::kFile;  ///< not configurable
    };

    /// Reads the configuration section. Returns false and sets `error` when it is invalid. A
    /// missing section is valid.
    static bool ReadSettings(const Json::Value& section, Settings& settings, std::string& error);

    FileNotifyTask(const Settings& settings,
                   std::unique_ptr<FileNotify::InotifyDescriptor> descriptor);

    FileNotifyTask(const FileNotifyTask&) = delete;
    FileNotifyTask& operator=(const FileNotifyTask&) = delete;

    /// Returns false when inotify cannot be opened; Run tries again.
    bool Init() override;
    bool UnInit() override;
    /// One turn: waits for events or requests, at most one second, and handles a bounded portion.
    int Run() override;

    /// Answers a FileNotifyWatchMessage on the sender's thread. Returns -1 for other messages.
    /// Thread-safe.
    int InterceptMsg(Framework::Message* msg, std::string& reply) override;

    /// Thread-safe.
    const FileNotify::StatusPublisher& Publisher() const { return status_; }

  private:
    ~FileNotifyTask() override;  // reference-counted

    bool EnsureOpen();
    void Listen();

    Poco::Logger* logger_;
    FileNotify::StatusPublisher status_;
    FileNotify::QueueLimit queue_limit_;
    FileNotify::WatchRequestQueue requests_;
    FileNotify::NotifyCore core_;
    const std::chrono::milliseconds retry_after_;
    bool open_failure_logged_ = false;
    bool listening_ = false;  ///< the inotify descriptor is an event source of the task
};

}  // namespace Engine
