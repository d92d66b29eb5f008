#include "index/DirNode.h"

#include <utility>

namespace Engine::FileNotify {

ChildDirs::ChildDirs() = default;
ChildDirs::~ChildDirs() = default;

std::uint32_t ChildDirs::IndexOf(std::string_view name) const {
    if (slots_ != nullptr) {
        return slots_->Find(HashName(name),
                            [&](std::uint32_t at) { return nodes_[at]->name == name; });
    }
    for (std::uint32_t at = 0; at < nodes_.size(); ++at) {
        if (nodes_[at]->name == name) return at;
    }
    return HashSlots::kNotFound;
}

DirNode* ChildDirs::Find(std::string_view name) const {
    const std::uint32_t at = IndexOf(name);
    return at == HashSlots::kNotFound ? nullptr : nodes_[at].get();
}

DirNode& ChildDirs::Add(std::unique_ptr<DirNode> node) {
    const auto hash_of = [this](std::uint32_t at) { return HashName(nodes_[at]->name); };
    nodes_.push_back(std::move(node));
    const auto last = static_cast<std::uint32_t>(nodes_.size() - 1);
    if (slots_ != nullptr) {
        slots_->Insert(hash_of(last), last, hash_of);
    } else if (nodes_.size() >= kHashedFrom) {
        slots_ = std::make_unique<HashSlots>();
        for (std::uint32_t at = 0; at <= last; ++at) slots_->Insert(hash_of(at), at, hash_of);
    }
    return *nodes_.back();
}

std::unique_ptr<DirNode> ChildDirs::Take(const DirNode& node) {
    const std::uint32_t at = IndexOf(node.name);
    const auto last = static_cast<std::uint32_t>(nodes_.size() - 1);
    if (slots_ != nullptr) {
        slots_->Erase(HashName(node.name), at);
        if (at != last) slots_->Replace(HashName(nodes_[last]->name), last, at);
    }
    std::swap(nodes_[at], nodes_[last]);
    std::unique_ptr<DirNode> taken = std::move(nodes_.back());
    nodes_.pop_back();
    if (nodes_.empty()) {
        slots_.reset();
        nodes_.shrink_to_fit();
    }
    return taken;
}

}  // namespace Engine::FileNotify
