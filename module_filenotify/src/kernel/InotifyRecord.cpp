#include "kernel/InotifyRecord.h"

#include <sys/inotify.h>

#include <cstring>

namespace Engine::FileNotify {

bool ParseRecords(std::string_view bytes, std::vector<InotifyRecord>& records) {
    while (!bytes.empty()) {
        inotify_event head{};
        if (bytes.size() < sizeof head) return false;
        std::memcpy(&head, bytes.data(), sizeof head);
        bytes.remove_prefix(sizeof head);
        if (bytes.size() < head.len) return false;
        const std::string_view padded = bytes.substr(0, head.len);
        records.push_back({head.wd, head.mask, head.cookie, padded.substr(0, padded.find('\0'))});
        bytes.remove_prefix(head.len);
    }
    return true;
}

}  // namespace Engine::FileNotify
