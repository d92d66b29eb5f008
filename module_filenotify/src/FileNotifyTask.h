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

/// The task "filenotify_task": takes watch requests, waits for the kernel, lets the parts work.
class FileNotifyTask : public Framework::Task {
  public:
    static constexpr const char* kId = "filenotify_task";

    struct Settings {
        std::chrono::milliseconds retry_after{3000};  ///< between tries of what cannot be watched
        /// What the kernel is to keep for us; 0: its limit is left alone.
        std::uint32_t max_queued_events = 0;
        std::string queue_limit_file = FileNotify::QueueLimit::kFile;  ///< not configurable
    };

    /// Checks the section of the configuration; false with `error` when it holds anything odd.
    static bool ReadSettings(const Json::Value& section, Settings& settings, std::string& error);

    FileNotifyTask(const Settings& settings,
                   std::unique_ptr<FileNotify::InotifyDescriptor> descriptor);

    FileNotifyTask(const FileNotifyTask&) = delete;
    FileNotifyTask& operator=(const FileNotifyTask&) = delete;

    bool Init() override;
    bool UnInit() override;
    int Run() override;

    /// Answers a watch request on the sender's thread; refuses other messages.
    int InterceptMsg(Framework::Message* msg, std::string& reply) override;

    /// Any thread.
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
    bool listening_ = false;  ///< the kernel's queue wakes the task
};

}  // namespace Engine
