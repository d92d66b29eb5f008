// Owns: half of a move, between its two records. Not: the records (InotifyReader).
// Thread: the task's.

#include "changes/EventTranslator.h"

#include <fcntl.h>
#include <sdk/log/Log.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "delivery/RestoreNames.h"

namespace Engine::FileNotify {

using Kind = NameIndex::Kind;

namespace {

constexpr std::chrono::seconds kOverflowLogAgainAfter{10};
constexpr std::uint32_t kEnds = IN_MOVED_FROM | IN_DELETE;
// A restore makes and moves its temporary with few records between.
constexpr std::size_t kFleetingRecords = 16;

}  // namespace

std::size_t EventTranslator::Handle(std::size_t limit) {
    // What is read meanwhile, for the sake of moves, waits for the next turn: a watch may have been
    // asked for before it happened.
    limit = std::min(limit, reader_.Size());
    std::size_t handled = 0;
    for (; handled < limit; ++handled) {
        router_.SetTime(reader_.FrontTime());
        HandleRecord(*reader_.Front());
        reader_.Pop();
        roots_.Settle();
    }
    // A partner is always among the records that were read with the first half.
    if (reader_.Empty()) {
        moves_.clear();
        fleeting_.clear();
    }
    counters_.events_received += handled;
    return handled;
}

void EventTranslator::HandleRecord(const InotifyRecord& record) {
    if ((record.mask & IN_Q_OVERFLOW) != 0) {
        Overflow();
    } else if ((record.mask & IN_IGNORED) != 0) {
        WatchEnded(record.wd);
    } else if (!IsFleeting(record)) {
        // Handling one node may remove another one of the same watch.
        DirNode* first = tree_.table.FirstNodeOf(record.wd);
        if (first == nullptr) return;
        const std::vector<DirNode*> nodes = tree_.table.FurtherNodesOf(record.wd);
        HandleAt(*first, record);
        for (DirNode* node : nodes) {
            if (tree_.table.IsNodeOf(record.wd, node)) HandleAt(*node, record);
        }
    }
}

// What a restore makes under a temporary name is moved to its place at once; who hears of the place
// need not hear of the temporary. Only a name whose end has been read is left out.
bool EventTranslator::IsFleeting(const InotifyRecord& record) {
    if (!IsRestoreTemporary(record.name) || (record.mask & IN_ISDIR) != 0) return false;
    const auto known = std::find_if(fleeting_.begin(), fleeting_.end(), [&](const auto& one) {
        return one.first == record.wd && one.second == record.name;
    });
    if (known != fleeting_.end()) {
        if ((record.mask & kEnds) != 0) fleeting_.erase(known);
        return true;
    }
    if ((record.mask & IN_CREATE) == 0 || !EndsSoon(record)) return false;
    fleeting_.emplace_back(record.wd, record.name);
    return true;
}

bool EventTranslator::EndsSoon(const InotifyRecord& record) {
    const auto find = [&] {
        for (std::size_t distance = 1; distance <= kFleetingRecords; ++distance) {
            const InotifyRecord* next = reader_.Ahead(distance);
            if (next == nullptr) return false;
            if (next->wd == record.wd && (next->mask & kEnds) != 0 && next->name == record.name) {
                return true;
            }
        }
        return false;
    };
    if (find()) return true;
    if (reader_.Ahead(kFleetingRecords) != nullptr) return false;
    reader_.Fill();
    return find();
}

void EventTranslator::Overflow() {
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
    roots_.LookAgain(true);
    roots_.Settle();
}

void EventTranslator::WatchEnded(int wd) {
    const std::vector<DirNode*> nodes = tree_.table.Forget(wd);
    if (!nodes.empty()) tree_.opener.Clear();
    for (DirNode* node : nodes) {
        // Mostly the directory is gone and its parent tells so. Where it does not (something was
        // unmounted), another directory is there now.
        if (tree_.matcher.IsWalked(*node)) {
            tree_.Enqueue(*node, WalkQueue::kReconcile, nullptr);
        } else {
            tree_.EnsureWatched(*node);
            roots_.LookAgain(false);
        }
    }
}

void EventTranslator::HandleAt(DirNode& dir, const InotifyRecord& record) {
    const bool is_directory = (record.mask & IN_ISDIR) != 0;
    if (record.name.empty()) {
        AboutDirectoryItself(dir, record);
    } else if ((record.mask & IN_CREATE) != 0) {
        changes_.Appeared(dir, record.name, is_directory, IN_CREATE,
                          {WalkQueue::kArrived, nullptr, false, true});
    } else if ((record.mask & IN_DELETE) != 0) {
        changes_.Gone(dir, record.name, is_directory, IN_DELETE);
    } else if ((record.mask & IN_MOVED_FROM) != 0) {
        MovedFrom(dir, record);
    } else if ((record.mask & IN_MOVED_TO) != 0) {
        MovedTo(dir, record);
    } else {
        router_.Announce({&dir, record.name}, record.mask);
    }
}

void EventTranslator::AboutDirectoryItself(DirNode& dir, const InotifyRecord& record) {
    const std::uint32_t end = record.mask & (IN_DELETE_SELF | IN_MOVE_SELF);
    if (end != 0) {
        // The parent's event says it better, if the parent is watched.
        if (dir.parent == nullptr || dir.parent->wd >= 0) return;
        const std::string name = dir.name;
        changes_.Gone(*dir.parent, name, true, end == IN_MOVE_SELF ? IN_MOVED_FROM : IN_DELETE);
        return;
    }
    // The rest reaches inner directories through their parents too.
    for (const Watch* watch : tree_.matcher.WaitingFor(dir.parent, dir.name)) {
        if (watch->AtParent()) router_.AnnounceRoot(*watch, record.mask | IN_ISDIR);
    }
}

void EventTranslator::MovedFrom(DirNode& dir, const InotifyRecord& record) {
    const InotifyRecord* to = PartnerOf(record);
    DirNode* target = to == nullptr ? nullptr : tree_.table.FirstNodeOf(to->wd);
    const bool is_directory = (record.mask & IN_ISDIR) != 0;
    ObjectRef moved_to;
    if (target != nullptr && tree_.matcher.IsCovered(*target, to->name)) {
        moved_to = {target, to->name};
        if (moves_.count(record.cookie) != 0 || TakeSwap(dir, record, *target, *to)) {
            router_.Announce({&dir, record.name}, record.mask, moved_to);
            return;
        }
    }
    DirNode* node = is_directory ? dir.dirs.Find(record.name) : nullptr;
    if (node != nullptr && moved_to.dir != nullptr && CanMove(*node, *target, to->name)) {
        moves_[record.cookie] = {false, NameIndex::Lookup(*target, to->name)};
        changes_.Move(*node, *target, to->name, IN_MOVED_FROM);
    } else {
        changes_.Gone(dir, record.name, is_directory, IN_MOVED_FROM, moved_to);
    }
    // A swap leaves something at the old name; of one with a place that is not watched, and of one
    // whose other half is not to be read yet, nothing else tells.
    changes_.Recheck(dir, record.name);
}

const InotifyRecord* EventTranslator::PartnerOf(const InotifyRecord& from) {
    const InotifyRecord* to = reader_.FindAhead(from.cookie, IN_MOVED_TO);
    // A swap is told by two more records.
    if (to != nullptr && reader_.Ahead(3) != nullptr) return to;
    reader_.Fill();
    return reader_.FindAhead(from.cookie, IN_MOVED_TO);
}

// What cannot be in the file system can seem so here, as a walk has seen later changes already; the
// directory is then taken for gone, and for new at the other place.
bool EventTranslator::CanMove(const DirNode& node, const DirNode& target,
                              std::string_view name) const {
    if (node.Is(DirNode::kThroughLink) || !tree_.matcher.IsWalked(target, name)) return false;
    const DirNode* replaced = target.dirs.Find(name);
    return !NameIndex::IsWithin(target, node) &&
           (replaced == nullptr || !NameIndex::IsWithin(node, *replaced));
}

// Two names that change places give two moves, there and back, right after one another, and no
// event about what the first move would have replaced.
bool EventTranslator::TakeSwap(DirNode& dir, const InotifyRecord& from, DirNode& target,
                               const InotifyRecord& to) {
    const InotifyRecord* back_from = reader_.Ahead(2);
    const InotifyRecord* back_to = reader_.Ahead(3);
    if (back_to == nullptr || reader_.Ahead(1) != &to) return false;
    const bool is_there_and_back =
        (back_from->mask & IN_MOVED_FROM) != 0 && (back_to->mask & IN_MOVED_TO) != 0 &&
        back_from->cookie == back_to->cookie && back_from->wd == to.wd &&
        back_from->name == to.name && back_to->wd == from.wd && back_to->name == from.name;
    if (!is_there_and_back || ((from.mask ^ back_from->mask) & IN_ISDIR) != 0) return false;
    if ((from.mask & IN_ISDIR) != 0) {
        DirNode* one = dir.dirs.Find(from.name);
        DirNode* other = target.dirs.Find(to.name);
        if (one == nullptr || other == nullptr || one == other ||
            NameIndex::IsWithin(*one, *other) || NameIndex::IsWithin(*other, *one)) {
            return false;
        }
        changes_.Exchange(*one, *other);
    } else if (NameIndex::Lookup(dir, from.name) != Kind::kOther ||
               NameIndex::Lookup(target, to.name) != Kind::kOther) {
        return false;
    }
    moves_[from.cookie].swap = true;
    moves_[back_from->cookie].swap = true;
    return true;
}

void EventTranslator::MovedTo(DirNode& dir, const InotifyRecord& record) {
    const auto move = moves_.find(record.cookie);
    if (move == moves_.end()) {
        changes_.Appeared(dir, record.name, (record.mask & IN_ISDIR) != 0, IN_MOVED_TO,
                          {WalkQueue::kArrived, nullptr, false, true});
        return;
    }
    const HalfMove half = move->second;
    moves_.erase(move);
    if (half.swap) {
        router_.Announce({&dir, record.name}, record.mask);
        roots_.NameAppeared(dir, record.name, (record.mask & IN_ISDIR) != 0);
    } else {
        changes_.MovedHere(dir, record.name, IN_MOVED_TO, half.replaced);
    }
}

}  // namespace Engine::FileNotify
