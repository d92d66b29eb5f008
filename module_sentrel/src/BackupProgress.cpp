#include <BackupProgress.h>

namespace Engine {

BackupProgress& BackupProgress::Instance() {
    static BackupProgress instance;
    return instance;
}

void BackupProgress::Restart() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++round_;
    complete_.clear();
}

std::uint64_t BackupProgress::Round() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return round_;
}

bool BackupProgress::NoteComplete(const SentrelDirRule& rule, std::uint64_t round) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (round != round_) return false;
    complete_.emplace(rule.real_path, rule.backup_path);
    return true;
}

bool BackupProgress::IsComplete(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return complete_.count({rule.real_path, rule.backup_path}) != 0;
}

}  // namespace Engine
