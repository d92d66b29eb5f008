#include <framework/Task.h>
#include <module_filenotify/AbstractMessageReceiver.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>

#include <utility>

namespace Engine {

FileNotifyMessage::FileNotifyMessage(std::string watch_file, std::string event_path,
                                     std::string moveto_file, std::uint32_t raw_mask,
                                     std::chrono::steady_clock::time_point read_time,
                                     std::shared_ptr<DeliveryObserver> observer)
    : watch_file_(std::move(watch_file)),
      event_path_(std::move(event_path)),
      moveto_file_(std::move(moveto_file)),
      raw_mask_(raw_mask),
      read_time_(read_time),
      observer_(std::move(observer)) {}

FileNotifyMessage::~FileNotifyMessage() {
    if (observer_ != nullptr) observer_->MessageGone(*this, handling_);
}

void FileNotifyMessage::Deliver(Framework::Task& receiver) {
    auto* taker = dynamic_cast<AbstractMessageReceiver*>(&receiver);
    if (taker == nullptr) return;
    if (observer_ == nullptr) {
        taker->FileNotifyMessageAction(this);
        return;
    }
    const auto begin = std::chrono::steady_clock::now();
    taker->FileNotifyMessageAction(this);
    NoteHandling(std::chrono::steady_clock::now() - begin);
}

std::uint32_t FileNotifyMessage::GetEventMask() const {
    return raw_mask_ & ~static_cast<std::uint32_t>(IN_ISDIR);
}

}  // namespace Engine
