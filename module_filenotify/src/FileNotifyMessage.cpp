#include <framework/Task.h>
#include <module_filenotify/AbstractMessageReceiver.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>

#include <utility>

namespace Engine {

FileNotifyMessage::FileNotifyMessage(std::string watch_file, std::string event_path,
                                     std::string moveto_file, std::uint32_t raw_mask,
                                     std::chrono::steady_clock::time_point read_time)
    : watch_file_(std::move(watch_file)),
      event_path_(std::move(event_path)),
      moveto_file_(std::move(moveto_file)),
      raw_mask_(raw_mask),
      read_time_(read_time) {}

void FileNotifyMessage::Deliver(Framework::Task& receiver) {
    if (auto* taker = dynamic_cast<AbstractMessageReceiver*>(&receiver)) {
        taker->FileNotifyMessageAction(this);
    }
}

std::uint32_t FileNotifyMessage::GetEventMask() const {
    return raw_mask_ & ~static_cast<std::uint32_t>(IN_ISDIR);
}

}  // namespace Engine
