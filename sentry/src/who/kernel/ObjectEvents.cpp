// Owns the fanotify group that tells of changes. Must not know processes.
#include "who/kernel/ObjectEvents.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Sentry {

namespace {

/// A record of an event: a directory's handle, and a name behind it.
const fanotify_event_info_fid* FindDirectory(const char* begin, const char* end) {
    while (begin + sizeof(fanotify_event_info_header) <= end) {
        const auto* header = reinterpret_cast<const fanotify_event_info_header*>(begin);
        if (header->info_type == FAN_EVENT_INFO_TYPE_DFID_NAME ||
            header->info_type == FAN_EVENT_INFO_TYPE_DFID) {
            return reinterpret_cast<const fanotify_event_info_fid*>(begin);
        }
        if (header->len == 0) break;
        begin += header->len;
    }
    return nullptr;
}

}  // namespace

ObjectEvents::ObjectEvents()
    : group_(::fanotify_init(
          FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_MARKS | FAN_REPORT_DFID_NAME,
          O_RDONLY | O_CLOEXEC)),
      trees_(std::make_unique<WatchedTrees>(group_.Get())) {
    if (!group_.IsOpen()) problem_ = std::string("fanotify: ") + std::strerror(errno);
}

void ObjectEvents::Parse(const std::vector<char>& bytes, Nanoseconds now,
                         std::vector<Event>& events) {
    // An event may lie where its structure may not: the kernel aligns to four bytes.
    fanotify_event_metadata data{};
    std::size_t begin = 0;
    for (std::uint32_t ahead = 0; begin + sizeof(data) <= bytes.size(); ++ahead) {
        std::memcpy(&data, bytes.data() + begin, sizeof(data));
        if (data.event_len < sizeof(data) || data.event_len > bytes.size() - begin) return;
        Take(data, bytes.data() + begin, ahead, now, events);
        begin += data.event_len;
    }
}

void ObjectEvents::Take(const fanotify_event_metadata& data, const char* event, std::uint32_t ahead,
                        Nanoseconds now, std::vector<Event>& events) {
    if ((data.mask & FAN_Q_OVERFLOW) != 0) ++overflows_;
    const fanotify_event_info_fid* info =
        FindDirectory(event + data.metadata_len, event + data.event_len);
    if (info == nullptr) return;
    const auto* handle = reinterpret_cast<const file_handle*>(info->handle);
    const auto* name = reinterpret_cast<const char*>(handle->f_handle) + handle->handle_bytes;
    const bool is_named = info->hdr.info_type == FAN_EVENT_INFO_TYPE_DFID_NAME;
    const std::string key =
        WatchedTrees::Key(&info->fsid, handle->handle_type, handle->f_handle, handle->handle_bytes);
    std::string path = trees_->PathOf(key, is_named ? name : "", now);
    if (path.empty()) return;
    if ((data.mask & FAN_ONDIR) != 0) {
        if ((data.mask & (FAN_MOVED_FROM | FAN_DELETE)) != 0) trees_->Vanished(path);
        if ((data.mask & (FAN_MOVED_TO | FAN_CREATE)) != 0) trees_->Appeared(path);
    }
    events.push_back({std::move(path), data.pid, ahead});
}

}  // namespace Sentry
