// Owns: moves between their two records. Must not own: the records (InotifyReader), nor the index
// (WatchedTree). Thread: the task's. Ownership passes: never.

#include "changes/MoveTranslator.h"

#include <sys/inotify.h>

namespace Engine::FileNotify {

using Kind = NameIndex::Kind;

void MoveTranslator::MovedFrom(DirNode& dir, const InotifyRecord& record) {
    const InotifyRecord* to = PartnerOf(record);
    DirNode* target = to == nullptr ? nullptr : tree_.table.FirstNodeOf(to->wd);
    const bool is_directory = (record.mask & IN_ISDIR) != 0;
    ObjectRef moved_to;
    if (target != nullptr && tree_.matcher.IsCovered(*target, to->name)) {
        moved_to = {target, to->name};
        if (moves_.count(record.cookie) != 0 || ApplySwap(dir, record, *target, *to)) {
            router_.Announce({&dir, record.name}, record.mask, moved_to);
            return;
        }
    }
    DirNode* node = is_directory ? dir.dirs.Find(record.name) : nullptr;
    if (node != nullptr && target != nullptr && moved_to.dir != nullptr &&
        CanMove(*node, *target, to->name)) {
        moves_[record.cookie] = {false, NameIndex::Lookup(*target, to->name)};
        changes_.Move(*node, *target, to->name, IN_MOVED_FROM);
    } else {
        changes_.Gone(dir, record.name, is_directory, IN_MOVED_FROM, moved_to);
    }
    // An exchange leaves an object at the old name. There is no event for it when the other place
    // is unwatched or its records are not read yet.
    changes_.Recheck(dir, record.name);
}

const InotifyRecord* MoveTranslator::PartnerOf(const InotifyRecord& from) {
    const InotifyRecord* to = reader_.FindAhead(from.cookie, IN_MOVED_TO);
    // An exchange needs two more records to be recognised.
    if (to != nullptr && reader_.Peek(3) != nullptr) return to;
    reader_.Fill();
    return reader_.FindAhead(from.cookie, IN_MOVED_TO);
}

// A walk may have seen later changes already, so that the index contradicts the move. The move is
// then handled as a deletion and an arrival.
bool MoveTranslator::CanMove(const DirNode& node, const DirNode& target,
                             std::string_view name) const {
    if (node.Is(DirNode::kThroughLink) || !tree_.matcher.IsWalked(target, name)) return false;
    const DirNode* replaced = target.dirs.Find(name);
    return !NameIndex::IsWithin(target, node) &&
           (replaced == nullptr || !NameIndex::IsWithin(node, *replaced));
}

// The kernel reports an exchange as two adjacent moves, there and back, without an event about the
// object that the first move seems to replace.
bool MoveTranslator::ApplySwap(DirNode& dir, const InotifyRecord& from, DirNode& target,
                               const InotifyRecord& to) {
    const InotifyRecord* back_from = reader_.Peek(2);
    const InotifyRecord* back_to = reader_.Peek(3);
    if (back_to == nullptr || reader_.Peek(1) != &to) return false;
    if (!IsWayBack(from, to, *back_from, *back_to)) return false;
    if (((from.mask ^ back_from->mask) & IN_ISDIR) != 0) return false;
    if ((from.mask & IN_ISDIR) != 0) {
        if (!ExchangeDirectories(dir.dirs.Find(from.name), target.dirs.Find(to.name))) return false;
    } else if (NameIndex::Lookup(dir, from.name) != Kind::kOther ||
               NameIndex::Lookup(target, to.name) != Kind::kOther) {
        return false;
    }
    moves_[from.cookie].swap = true;
    moves_[back_from->cookie].swap = true;
    return true;
}

bool MoveTranslator::IsWayBack(const InotifyRecord& from, const InotifyRecord& to,
                               const InotifyRecord& back_from, const InotifyRecord& back_to) {
    return (back_from.mask & IN_MOVED_FROM) != 0 && (back_to.mask & IN_MOVED_TO) != 0 &&
           back_from.cookie == back_to.cookie && back_from.wd == to.wd &&
           back_from.name == to.name && back_to.wd == from.wd && back_to.name == from.name;
}

bool MoveTranslator::ExchangeDirectories(DirNode* one, DirNode* other) {
    if (one == nullptr || other == nullptr || one == other || NameIndex::IsWithin(*one, *other) ||
        NameIndex::IsWithin(*other, *one)) {
        return false;
    }
    changes_.Exchange(*one, *other);
    return true;
}

void MoveTranslator::MovedTo(DirNode& dir, const InotifyRecord& record) {
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
