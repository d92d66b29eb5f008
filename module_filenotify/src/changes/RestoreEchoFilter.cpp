// Owns: the names of skipped temporaries. Must not own: the records (InotifyReader).
// Thread: the task's. Ownership passes: never.

#include "changes/RestoreEchoFilter.h"

#include <sys/inotify.h>

#include <algorithm>

#include "delivery/RestoreNames.h"

namespace Engine::FileNotify {

namespace {

constexpr std::uint32_t kEnds = IN_MOVED_FROM | IN_DELETE;
// A restore causes only a few records between the creation and the move of its temporary.
constexpr std::size_t kMaxDistance = 16;

}  // namespace

bool RestoreEchoFilter::Skips(const InotifyRecord& record) {
    if (!IsRestoreTemporary(record.name) || (record.mask & IN_ISDIR) != 0) return false;
    const auto known = std::find_if(temporaries_.begin(), temporaries_.end(), [&](const auto& one) {
        return one.first == record.wd && one.second == record.name;
    });
    if (known != temporaries_.end()) {
        if ((record.mask & kEnds) != 0) temporaries_.erase(known);
        return true;
    }
    if ((record.mask & IN_CREATE) == 0 || !EndsSoon(record)) return false;
    temporaries_.emplace_back(record.wd, record.name);
    return true;
}

bool RestoreEchoFilter::EndsSoon(const InotifyRecord& record) {
    if (HasEndAhead(record)) return true;
    if (reader_.Peek(kMaxDistance) != nullptr) return false;
    reader_.Fill();
    return HasEndAhead(record);
}

bool RestoreEchoFilter::HasEndAhead(const InotifyRecord& record) const {
    for (std::size_t distance = 1; distance <= kMaxDistance; ++distance) {
        const InotifyRecord* next = reader_.Peek(distance);
        if (next == nullptr) return false;
        if (next->wd == record.wd && (next->mask & kEnds) != 0 && next->name == record.name) {
            return true;
        }
    }
    return false;
}

}  // namespace Engine::FileNotify
