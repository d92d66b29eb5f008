// Owns: the kinds of names that disappeared. Must not own: index and watches (WatchedTree).
// Thread: the task's. Ownership passes: never.

#include "changes/TreeChanges.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

namespace Engine::FileNotify {

using Kind = NameIndex::Kind;

void TreeChanges::Appeared(DirNode& dir, std::string_view name, bool is_directory,
                           std::uint32_t mask, const Visit& visit) {
    if (!tree_.matcher.IsCovered(dir, name)) {
        StepAppeared(dir, name, is_directory);
        return;
    }
    const Kind now = is_directory ? Kind::kDirectory : Kind::kOther;
    const Kind before = NameIndex::Lookup(dir, name);
    bool changed = before != Kind::kNone && before != now;
    if (before == Kind::kNone && mask != 0) {
        changed = memory_.TakeChanged(NameIndex::PathOf(dir, name), is_directory);
    }
    if (is_directory) {
        PutDirectory(dir, name, before, visit);
    } else {
        tree_.PutFile(dir, name);
    }
    if (mask != 0) {
        router_.Announce({&dir, name}, is_directory ? mask | IN_ISDIR : mask);
        if (changed) router_.AnnounceKindChange(dir, name, is_directory);
    }
    roots_.NameAppeared(dir, name, is_directory);
}

// No watch covers the name, but the path to a root may lead through it.
void TreeChanges::StepAppeared(DirNode& dir, std::string_view name, bool is_directory) {
    DirNode* step = dir.dirs.Find(name);
    if (step != nullptr && (!is_directory || step->Is(DirNode::kThroughLink))) {
        tree_.RemoveDirectory(*step);
    }
    dir.Set(DirNode::kPartial, true);
    roots_.NameAppeared(dir, name, is_directory);
}

void TreeChanges::PutDirectory(DirNode& dir, std::string_view name, Kind before,
                               const Visit& visit) {
    DirNode& node = tree_.PutDirectory(dir, name);
    if (before != Kind::kDirectory) {
        node.Set(DirNode::kInitial, visit.initial);
    } else if (visit.may_be_another) {
        node.inode = 0;
        tree_.opener.Clear();
    }
    if (visit.reasons != 0 && tree_.matcher.IsWalked(dir, name)) {
        tree_.Enqueue(node, visit.reasons, visit.owner);
    }
}

void TreeChanges::Gone(DirNode& dir, std::string_view name, bool is_directory, std::uint32_t mask,
                       ObjectRef moved_to) {
    router_.Announce({&dir, name}, is_directory ? mask | IN_ISDIR : mask, moved_to);
    const Kind gone = is_directory ? Kind::kDirectory : Kind::kOther;
    const Kind known = NameIndex::Lookup(dir, name);
    if (known != Kind::kNone && known != gone) return;
    if (tree_.matcher.IsCovered(dir, name)) {
        memory_.Remember(NameIndex::PathOf(dir, name), is_directory);
    }
    if (DirNode* node = dir.dirs.Find(name)) {
        tree_.RemoveDirectory(*node);
    } else {
        tree_.index.RemoveFile(dir, name);
    }
    roots_.NameGone(dir, name);
}

void TreeChanges::Move(DirNode& node, DirNode& target, std::string_view name, std::uint32_t mask) {
    DirNode& from = *node.parent;
    const std::string old_name = node.name;
    router_.Announce({&from, old_name}, mask | IN_ISDIR, {&target, name});
    memory_.Remember(NameIndex::PathOf(from, old_name), true);
    const bool has_new_watch = HasNewWatch(from, old_name, target, name);
    tree_.NotifyDetach(node);
    roots_.NameGone(from, old_name);
    if (DirNode* replaced = target.dirs.Find(name)) {
        tree_.RemoveDirectory(*replaced);
    } else {
        tree_.index.RemoveFile(target, name);
    }
    tree_.index.Move(node, target, name);
    tree_.opener.Forget(node);  // to be opened at its new place
    const bool unknown = has_new_watch || !node.Is(DirNode::kListed);
    tree_.Enqueue(node, unknown ? WalkQueue::kArrived : WalkQueue::kVerify, nullptr);
}

void TreeChanges::MovedHere(DirNode& dir, std::string_view name, std::uint32_t mask,
                            Kind replaced) {
    bool changed = replaced == Kind::kOther;
    if (replaced == Kind::kNone) {
        changed = memory_.TakeChanged(NameIndex::PathOf(dir, name), true);
    }
    router_.Announce({&dir, name}, mask | IN_ISDIR);
    if (changed) router_.AnnounceKindChange(dir, name, true);
    roots_.NameAppeared(dir, name, true);
}

void TreeChanges::Recheck(DirNode& dir, std::string_view name) {
    const int holder = tree_.opener.Locate(dir);
    struct stat status {};
    const std::string text(name);
    if (holder < 0 || ::fstatat(holder, text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    Appeared(dir, text, S_ISDIR(status.st_mode), IN_CREATE,
             {WalkQueue::kArrived, nullptr, false, true});
}

void TreeChanges::Exchange(DirNode& one, DirNode& other) {
    tree_.NotifyDetach(one);
    tree_.NotifyDetach(other);
    tree_.index.Exchange(one, other);
    tree_.opener.Forget(one);
    tree_.opener.Forget(other);
    // The content of one that was ignored is not known.
    const auto reason = [](const DirNode& node) {
        return node.Is(DirNode::kListed) ? WalkQueue::kVerify : WalkQueue::kArrived;
    };
    tree_.Enqueue(one, reason(one), nullptr);
    tree_.Enqueue(other, reason(other), nullptr);
}

bool TreeChanges::HasNewWatch(const DirNode& from, std::string_view name, const DirNode& to,
                              std::string_view new_name) const {
    WatchMatcher::Hits old_hits;
    WatchMatcher::Hits new_hits;
    tree_.matcher.Covering(from, name, old_hits);
    tree_.matcher.Covering(to, new_name, new_hits);
    return std::any_of(new_hits.begin(), new_hits.end(), [&](const WatchMatcher::Hit& hit) {
        return std::none_of(old_hits.begin(), old_hits.end(),
                            [&](const WatchMatcher::Hit& old) { return old.watch == hit.watch; });
    });
}

}  // namespace Engine::FileNotify
