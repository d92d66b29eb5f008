#include <BackupProgress.h>

#include <tuple>

namespace Engine {

BackupProgress& BackupProgress::Instance() {
    static BackupProgress instance;
    return instance;
}

void BackupProgress::Restart() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++round_;
    begin_.reset();
    complete_.clear();
}

std::uint64_t BackupProgress::Round() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return round_;
}

std::uint64_t BackupProgress::BeginCopy() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!begin_) ::clock_gettime(CLOCK_REALTIME_COARSE, &begin_.emplace());
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

bool BackupProgress::IsOfThisRound(const struct stat& copy) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return begin_ && std::tie(copy.st_ctim.tv_sec, copy.st_ctim.tv_nsec) >
                         std::tie(begin_->tv_sec, begin_->tv_nsec);
}

}  // namespace Engine
