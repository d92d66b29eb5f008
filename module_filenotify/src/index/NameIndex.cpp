// Owns: the nodes of all known directories and the names in them.
// Must not own: kernel watches (WatchTable), nor the watches that need a directory (WatchMatcher).
// Thread: the task's.
// Ownership passes: never; nodes are borrowed until they are removed.

#include "index/NameIndex.h"

#include <algorithm>
#include <utility>

namespace Engine::FileNotify {

NameIndex::NameIndex() : root_(std::make_unique<DirNode>()) {
    root_->totals.directories = 1;
}

NameIndex::~NameIndex() {
    Dismantle(*root_, [](DirNode&) {});
}

NameIndex::Kind NameIndex::Lookup(const DirNode& dir, std::string_view name) {
    if (const DirNode* node = dir.dirs.Find(name)) {
        return node->Is(DirNode::kThroughLink) ? Kind::kOther : Kind::kDirectory;
    }
    return dir.files.Contains(name) ? Kind::kOther : Kind::kNone;
}

DirNode& NameIndex::AddDirectory(DirNode& parent, std::string_view name) {
    if (DirNode* known = parent.dirs.Find(name)) return *known;
    RemoveFile(parent, name);
    auto node = std::make_unique<DirNode>();
    node->parent = &parent;
    node->name = name;
    node->totals.directories = 1;
    AddTotals(&parent, node->totals, true);
    return parent.dirs.Add(std::move(node));
}

bool NameIndex::AddFile(DirNode& dir, std::string_view name) {
    if (!dir.files.Insert(name)) return false;
    AddTotals(&dir, {0, 1, 0}, true);
    return true;
}

bool NameIndex::RemoveFile(DirNode& dir, std::string_view name) {
    if (!dir.files.Erase(name)) return false;
    AddTotals(&dir, {0, 1, 0}, false);
    return true;
}

void NameIndex::SetFiles(DirNode& dir, const PackedNames& names) {
    ClearFiles(dir);
    dir.files.Assign(names);
    AddTotals(&dir, {0, dir.files.Size(), 0}, true);
}

void NameIndex::ClearFiles(DirNode& dir) {
    AddTotals(&dir, {0, dir.files.Size(), 0}, false);
    dir.files.Clear();
}

void NameIndex::Move(DirNode& node, DirNode& parent, std::string_view name) {
    AddTotals(node.parent, node.totals, false);
    std::unique_ptr<DirNode> owned = node.parent->dirs.Take(node);
    owned->parent = &parent;
    owned->name = name;
    AddTotals(&parent, node.totals, true);
    parent.dirs.Add(std::move(owned));
}

void NameIndex::Exchange(DirNode& one, DirNode& other) {
    DirNode& parent = *one.parent;
    DirNode& other_parent = *other.parent;
    AddTotals(&parent, one.totals, false);
    AddTotals(&other_parent, other.totals, false);
    std::unique_ptr<DirNode> first = parent.dirs.Take(one);
    std::unique_ptr<DirNode> second = other_parent.dirs.Take(other);
    std::swap(first->parent, second->parent);
    std::swap(first->name, second->name);
    AddTotals(&other_parent, first->totals, true);
    AddTotals(&parent, second->totals, true);
    other_parent.dirs.Add(std::move(first));
    parent.dirs.Add(std::move(second));
}

void NameIndex::Remove(DirNode& node, const Visitor& on_remove) {
    AddTotals(node.parent, node.totals, false);
    const std::unique_ptr<DirNode> owned = node.parent->dirs.Take(node);
    Dismantle(*owned, on_remove);
    on_remove(*owned);
}

void NameIndex::Dismantle(DirNode& top, const Visitor& on_remove) {
    DirNode* at = &top;
    while (true) {
        if (!at->dirs.All().empty()) {
            at = at->dirs.All().back().get();
            continue;
        }
        if (at == &top) return;
        DirNode* parent = at->parent;
        on_remove(*at);
        parent->dirs.Take(*at);
        at = parent;
    }
}

void NameIndex::SetUnwatched(DirNode& node, bool unwatched) {
    if (node.Is(DirNode::kUnwatched) == unwatched) return;
    node.Set(DirNode::kUnwatched, unwatched);
    AddTotals(&node, {0, 0, 1}, unwatched);
}

bool NameIndex::IsWithin(const DirNode& node, const DirNode& top) {
    for (const DirNode* at = &node; at != nullptr; at = at->parent) {
        if (at == &top) return true;
    }
    return false;
}

std::string NameIndex::PathBelow(const DirNode* top, const DirNode& dir, std::string_view name) {
    // The first pass computes the length, the second one writes from the end.
    std::size_t length = name.size();
    for (const DirNode* at = &dir; at != top && at != nullptr; at = at->parent) {
        length += at->name.size() + 1;
    }
    std::string path(length, '/');
    std::size_t end = length - name.size();
    std::copy(name.begin(), name.end(), path.begin() + static_cast<std::ptrdiff_t>(end));
    for (const DirNode* at = &dir; at != top && at != nullptr; at = at->parent) {
        end -= at->name.size() + 1;
        std::copy(at->name.begin(), at->name.end(),
                  path.begin() + static_cast<std::ptrdiff_t>(end));
    }
    if (name.empty() && path.size() > 1) path.pop_back();
    return path;
}

std::size_t NameIndex::PathLength(const DirNode& dir) {
    std::size_t length = 0;
    for (const DirNode* at = &dir; at != nullptr; at = at->parent) length += at->name.size() + 1;
    return length;
}

std::string NameIndex::PathOf(const DirNode& dir, std::string_view name) {
    return PathBelow(nullptr, dir, name);
}

void NameIndex::AddTotals(DirNode* node, const SubtreeTotals& change, bool add) {
    for (; node != nullptr; node = node->parent) {
        SubtreeTotals& totals = node->totals;
        totals.directories += add ? change.directories : -change.directories;
        totals.files += add ? change.files : -change.files;
        totals.unwatched += add ? change.unwatched : -change.unwatched;
    }
}

}  // namespace Engine::FileNotify
