// Owns: the knowledge that events were lost. Must not own: the records (InotifyReader), half moves
// (MoveTranslator), skipped temporaries (RestoreEchoFilter). Thread: the task's.
// Ownership passes: never.

#include "changes/EventTranslator.h"

#include <sdk/log/Log.h>
#include <sys/inotify.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace Engine::FileNotify {

namespace {

constexpr std::chrono::seconds kOverflowLogAgainAfter{10};

}  // namespace

std::size_t EventTranslator::Handle(std::size_t limit) {
    // Records that pairing moves reads meanwhile wait for the next turn: a watch request that is
    // older than they are may not be applied yet.
    limit = std::min(limit, reader_.Size());
    std::size_t handled = 0;
    for (; handled < limit; ++handled) {
        router_.SetTime(reader_.FrontTime());
        HandleRecord(*reader_.Front());
        reader_.Pop();
        roots_.ResolveChanged();
    }
    // Second halves are always read together with the first ones.
    if (reader_.Empty()) {
        moves_.Clear();
        restore_echoes_.Clear();
    }
    counters_.events_received += handled;
    return handled;
}

void EventTranslator::HandleRecord(const InotifyRecord& record) {
    if ((record.mask & IN_Q_OVERFLOW) != 0) {
        OnOverflow();
    } else if ((record.mask & IN_IGNORED) != 0) {
        OnWatchEnded(record.wd);
    } else if (!restore_echoes_.Skips(record)) {
        DirNode* first = tree_.table.FirstNodeOf(record.wd);
        if (first == nullptr) return;
        const std::vector<DirNode*> nodes = tree_.table.FurtherNodesOf(record.wd);
        HandleAt(*first, record);
        for (DirNode* node : nodes) {
            // Handling one node may have removed another one of the same watch.
            if (tree_.table.IsNodeOf(record.wd, node)) HandleAt(*node, record);
        }
    }
}

void EventTranslator::OnOverflow() {
    ++counters_.overflows;
    events_lost_ = true;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_overflow_log_) return;
    next_overflow_log_ = now + kOverflowLogAgainAfter;
    SDK_LOG(
        logger_, PRIO_WARNING,
        "the kernel's event queue has overflowed; all watched trees are walked again, %?u times "
        "so far.",
        counters_.overflows.load());
}

void EventTranslator::Recover() {
    if (!events_lost_ || tree_.queue.IsReconciling()) return;
    events_lost_ = false;
    router_.SetTime(std::chrono::steady_clock::now());
    roots_.ResolveAll(true);
    roots_.ResolveChanged();
}

void EventTranslator::OnWatchEnded(int wd) {
    const std::vector<DirNode*> nodes = tree_.table.Forget(wd);
    if (!nodes.empty()) tree_.opener.Clear();
    for (DirNode* node : nodes) {
        // Usually the directory is gone and its parent's event tells so. After an unmount there is
        // no such event, and another directory has the name.
        if (tree_.matcher.IsWalked(*node)) {
            tree_.Enqueue(*node, WalkQueue::kReconcile, nullptr);
        } else {
            tree_.EnsureWatched(*node);
            roots_.ResolveAll(false);
        }
    }
}

void EventTranslator::HandleAt(DirNode& dir, const InotifyRecord& record) {
    const bool is_directory = (record.mask & IN_ISDIR) != 0;
    if (record.name.empty()) {
        HandleSelf(dir, record);
    } else if ((record.mask & IN_CREATE) != 0) {
        changes_.Appeared(dir, record.name, is_directory, IN_CREATE,
                          {WalkQueue::kArrived, nullptr, false, true});
    } else if ((record.mask & IN_DELETE) != 0) {
        changes_.Gone(dir, record.name, is_directory, IN_DELETE);
    } else if ((record.mask & IN_MOVED_FROM) != 0) {
        moves_.MovedFrom(dir, record);
    } else if ((record.mask & IN_MOVED_TO) != 0) {
        moves_.MovedTo(dir, record);
    } else {
        const bool may_be_modified = (record.mask & IN_CLOSE_WRITE) != 0;
        router_.Announce({&dir, record.name}, record.mask | (may_be_modified ? IN_MODIFY : 0U));
    }
}

void EventTranslator::HandleSelf(DirNode& dir, const InotifyRecord& record) {
    const std::uint32_t end = record.mask & (IN_DELETE_SELF | IN_MOVE_SELF);
    if (end != 0) {
        // A watched parent reports it in more detail.
        if (dir.parent == nullptr || dir.parent->wd >= 0) return;
        const std::string name = dir.name;
        changes_.Gone(*dir.parent, name, true, end == IN_MOVE_SELF ? IN_MOVED_FROM : IN_DELETE);
        return;
    }
    // Only roots: for other directories, the parent reports these events too.
    for (const Watch* watch : tree_.matcher.AttachedFor(dir.parent, dir.name)) {
        if (watch->AtParent()) router_.AnnounceRoot(*watch, record.mask | IN_ISDIR);
    }
}

}  // namespace Engine::FileNotify
