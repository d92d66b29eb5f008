#pragma once

#include <framework/Task.h>
#include <module_filenotify/AbstractMessageReceiver.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <module_filenotify/FileNotifyWatchMessage.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace test {

struct SeenChange {
    std::uint32_t mask = 0;
    std::string path;
    std::string moveto;
    std::string watch;
};

/// A task that records what the file-notify module delivers to it.
class RecordingReceiver : public Framework::Task, public Engine::AbstractMessageReceiver {
  public:
    explicit RecordingReceiver(const std::string& id, unsigned int capacity = 1024)
        : Task(id, "feature", Framework::TaskCondition::kResident, capacity) {}

    int Run() override {
        if (Waiter().WaitAndHandleEvent(reading_ ? 1000 : 5, 10) == -1 && reading_) {
            BulkConsumeMsg(128);
        }
        return 0;
    }

    void FileNotifyMessageAction(Engine::FileNotifyMessage* msg) override {
        const std::lock_guard lock(mutex_);
        seen_.push_back({msg->GetRawMask(), msg->GetEventFilePath(), msg->GetMovetoFile(),
                         msg->GetWatchFile()});
    }

    /// False: messages stay in the queue.
    void SetReading(bool reading) {
        reading_ = reading;
        Waiter().Wake();
    }

    std::vector<SeenChange> Seen() const {
        const std::lock_guard lock(mutex_);
        return seen_;
    }

    void Forget() {
        const std::lock_guard lock(mutex_);
        seen_.clear();
    }

    /// Registers or removes a watch as a task does. Returns the watch id.
    std::string Ask(const std::string& path, const std::vector<unsigned int>& masks,
                    const _FileNotifyOpt& options) {
        std::string id;
        SyncSendDirectMsg("filenotify_task",
                          new Engine::FileNotifyWatchMessage(this, path, masks, options), id, 1000,
                          2);
        return id;
    }

  private:
    std::atomic<bool> reading_{true};
    mutable std::mutex mutex_;
    std::vector<SeenChange> seen_;
};

}  // namespace test
