#include "index/NameSet.h"

namespace Engine::FileNotify {

std::uint32_t NameSet::Find(std::string_view name) const {
    if (slots_ != nullptr) {
        return slots_->Find(HashName(name), [&](std::uint32_t at) { return NameAt(at) == name; });
    }
    for (std::uint32_t at = 0; at < bytes_.size(); at = Next(at)) {
        if (NameAt(at) == name) return at;
    }
    return HashSlots::kNotFound;
}

bool NameSet::Insert(std::string_view name) {
    if (name.empty() || name.size() > 255 || Contains(name)) return false;
    const auto at = static_cast<std::uint32_t>(bytes_.size());
    bytes_.push_back(static_cast<char>(name.size()));
    bytes_.insert(bytes_.end(), name.begin(), name.end());
    ++count_;
    if (slots_ != nullptr) {
        slots_->Insert(HashName(name), at,
                       [this](std::uint32_t other) { return HashName(NameAt(other)); });
    } else if (count_ >= kHashedFrom) {
        BuildSlots();
    }
    return true;
}

bool NameSet::Erase(std::string_view name) {
    const std::uint32_t at = Find(name);
    if (at == HashSlots::kNotFound) return false;
    if (slots_ != nullptr) slots_->Erase(HashName(name), at);
    erased_bytes_ += Next(at) - at;
    bytes_[at + 1] = '\0';
    --count_;
    if (count_ == 0) {
        Clear();
    } else if (erased_bytes_ > kWorthCompacting && erased_bytes_ > bytes_.size() / 2) {
        Compact();
    }
    return true;
}

void NameSet::Assign(const PackedNames& names) {
    Clear();
    bytes_ = names.Bytes();
    count_ = names.Count();
    if (count_ >= kHashedFrom) BuildSlots();
}

void NameSet::Clear() {
    bytes_ = {};
    slots_.reset();
    count_ = 0;
    erased_bytes_ = 0;
}

void NameSet::Compact() {
    std::vector<char> kept;
    kept.reserve(bytes_.size() - erased_bytes_);
    for (std::uint32_t at = 0; at < bytes_.size(); at = Next(at)) {
        if (!IsErased(at)) kept.insert(kept.end(), bytes_.begin() + at, bytes_.begin() + Next(at));
    }
    bytes_ = std::move(kept);
    erased_bytes_ = 0;
    slots_.reset();
    if (count_ >= kHashedFrom) BuildSlots();
}

void NameSet::BuildSlots() {
    slots_ = std::make_unique<HashSlots>();
    for (std::uint32_t at = 0; at < bytes_.size(); at = Next(at)) {
        if (IsErased(at)) continue;
        slots_->Insert(HashName(NameAt(at)), at,
                       [this](std::uint32_t other) { return HashName(NameAt(other)); });
    }
}

}  // namespace Engine::FileNotify
