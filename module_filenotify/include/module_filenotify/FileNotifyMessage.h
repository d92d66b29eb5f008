#pragma once

#include <framework/Message.h>
#include <module_filenotify/DeliveryObserver.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Engine {

/// One change under a watched path, delivered to the receiver's FileNotifyMessageAction.
///
/// A rename gives two messages: IN_MOVED_FROM with the old path, and with the new path as its move
/// target when that is watched too; IN_MOVED_TO with the new path and no target.
///
/// The sender creates it; the framework owns it from a successful post on. Not thread-safe.
class FileNotifyMessage : public Framework::Message {
  public:
    /// `observer` may be null; the destructor notifies it.
    FileNotifyMessage(std::string watch_file, std::string event_path, std::string moveto_file,
                      std::uint32_t raw_mask, std::chrono::steady_clock::time_point read_time,
                      std::shared_ptr<DeliveryObserver> observer = nullptr);
    ~FileNotifyMessage() override;
    FileNotifyMessage(const FileNotifyMessage&) = delete;
    FileNotifyMessage& operator=(const FileNotifyMessage&) = delete;

    /// Calls the receiver's FileNotifyMessageAction. Does nothing when `receiver` is no
    /// AbstractMessageReceiver. Blocks as long as the action runs.
    void Deliver(Framework::Task& receiver) override;

    /// Sets how long the receiver took, for the observer. Deliver calls it.
    void NoteHandling(std::chrono::nanoseconds handling) { handling_ = handling; }

    /// The event bits (IN_CREATE, IN_MODIFY, ...) without IN_ISDIR.
    std::uint32_t GetEventMask() const;

    /// The event bits with IN_ISDIR, as the kernel reports them.
    std::uint32_t GetRawMask() const { return raw_mask_; }

    /// Full path of the changed object, without a trailing "/".
    const std::string& GetEventFilePath() const { return event_path_; }

    /// Full path of a move's target, or empty.
    const std::string& GetMovetoFile() const { return moveto_file_; }

    /// The watch id: the reply to the watch request.
    const std::string& GetWatchFile() const { return watch_file_; }

    /// When the change was read from the kernel.
    std::chrono::steady_clock::time_point GetReadTime() const { return read_time_; }

  private:
    std::string watch_file_;
    std::string event_path_;
    std::string moveto_file_;
    std::uint32_t raw_mask_;
    std::chrono::steady_clock::time_point read_time_;
    std::shared_ptr<DeliveryObserver> observer_;
    std::optional<std::chrono::nanoseconds> handling_;  ///< none until delivered
};

}  // namespace Engine
