// Owns a key until a decision takes it. It must not judge keys (RuleBaselines does). Any thread.
#include "baseline/LentKey.h"

#include <utility>

namespace Engine {

void LentKey::Lend(Key key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    key_ = std::move(key);
    end_ = std::chrono::steady_clock::now() + kPatience;
}

LentKey::Key LentKey::Look() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return IsInTime() ? key_ : nullptr;
}

LentKey::Key LentKey::Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Key key = std::move(key_);
    key_.reset();
    return IsInTime() ? key : nullptr;
}

void LentKey::DropExpired() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!IsInTime()) key_.reset();
}

}  // namespace Engine
