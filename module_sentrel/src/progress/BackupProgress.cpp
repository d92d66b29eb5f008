// Owns the record of complete paths and open objects in the present round. It must not copy or
// compare (the backup task does) nor undo anything (the inotify task does). Any thread.
#include "progress/BackupProgress.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

namespace Engine {

namespace {

/// `path` relative to the rule's path, without a trailing "/"; "" for the rule's path itself and
/// for one that lies elsewhere.
std::string_view Below(const SentrelDirRule& rule, std::string_view path) {
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    const std::string& root = rule.real_path;
    if (rule.is_file || path.size() <= root.size()) return {};
    return path.substr(0, root.size()) == root ? path.substr(root.size()) : std::string_view();
}

bool HasCopy(const SentrelDirRule& rule, const std::string& below) {
    struct stat info {};
    return ::lstat((rule.backup_path + rule.real_path + below).c_str(), &info) == 0;
}

}  // namespace

void BackupProgress::Restart() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++round_;
    begin_.reset();
    renewed_.clear();
    complete_.clear();
    CountOpen();
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

void BackupProgress::Renew(const SentrelDirRule& rule) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Key key(rule.real_path, rule.backup_path);
    complete_.erase(key);
    ::clock_gettime(CLOCK_REALTIME_COARSE, &renewed_[key]);
    CountOpen();
}

std::optional<std::timespec> BackupProgress::Begin(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return BeginOf(rule);
}

std::optional<std::timespec> BackupProgress::BeginOf(const SentrelDirRule& rule) const {
    const auto renewed = renewed_.find({rule.real_path, rule.backup_path});
    return begin_ && renewed != renewed_.end() ? renewed->second : begin_;
}

bool BackupProgress::NoteComplete(const SentrelDirRule& rule, std::uint64_t round, OpenObjects open,
                                  unsigned attribute_kinds) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (round != round_) return false;
    complete_.insert_or_assign(
        {rule.real_path, rule.backup_path},
        Complete{std::move(open), HeldObjects(), false,
                 std::chrono::steady_clock::now() + kFirstRest, kFirstRest, attribute_kinds});
    CountOpen();
    return true;
}

bool BackupProgress::IsComplete(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return OpenOf(rule) != nullptr;
}

unsigned BackupProgress::AttributeKinds(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = complete_.find({rule.real_path, rule.backup_path});
    return known == complete_.end() ? 0 : known->second.attribute_kinds;
}

bool BackupProgress::IsOfThisRound(const SentrelDirRule& rule, const struct stat& copy) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::optional<std::timespec> begin = BeginOf(rule);
    return begin && std::tie(copy.st_ctim.tv_sec, copy.st_ctim.tv_nsec) >
                        std::tie(begin->tv_sec, begin->tv_nsec);
}

bool BackupProgress::IsOpen(const SentrelDirRule& rule, const std::string& path) const {
    if (!has_open_.load(std::memory_order_acquire)) return false;
    const std::string_view below = Below(rule, path);
    const std::lock_guard<std::mutex> lock(mutex_);
    const Complete* complete = Find(rule);
    if (complete == nullptr) return false;
    const auto has_copy = [&](const std::string& one) { return HasCopy(rule, one); };
    return complete->held.Covers(below) ||
           (!below.empty() && complete->open.Covers(below, has_copy));
}

bool BackupProgress::HasOpenIn(const SentrelDirRule& rule, const std::string& path) const {
    if (!has_open_.load(std::memory_order_acquire)) return false;
    if (IsOpen(rule, path)) return true;
    const std::lock_guard<std::mutex> lock(mutex_);
    const Complete* complete = Find(rule);
    const std::string_view below = Below(rule, path);
    return complete != nullptr &&
           (complete->open.HasAnyIn(below) || complete->held.HasAnyIn(below));
}

void BackupProgress::Hold(const SentrelDirRule& rule, const std::string& below, bool with_content) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Complete* const complete = Find(rule)) complete->held.Add(below, with_content);
    CountOpen();
}

void BackupProgress::Release(const SentrelDirRule& rule, const std::string& below) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Complete* const complete = Find(rule)) complete->held.Remove(below);
    CountOpen();
}

bool BackupProgress::IsHeld(const SentrelDirRule& rule, const std::string& path) const {
    if (!has_open_.load(std::memory_order_acquire)) return false;
    const std::string_view below = Below(rule, path);
    const std::lock_guard<std::mutex> lock(mutex_);
    const Complete* complete = Find(rule);
    return complete != nullptr && complete->held.Covers(below);
}

std::size_t BackupProgress::HeldCount(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Complete* complete = Find(rule);
    return complete == nullptr ? 0 : complete->held.Size();
}

std::vector<std::string> BackupProgress::HeldPaths(const SentrelDirRule& rule,
                                                   std::size_t most) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Complete* complete = Find(rule);
    return complete == nullptr ? std::vector<std::string>() : complete->held.Paths(most);
}

void BackupProgress::SetChecking(const SentrelDirRule& rule, bool checking) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (Complete* const complete = Find(rule)) complete->checking = checking;
    CountOpen();
}

bool BackupProgress::IsChecking(const SentrelDirRule& rule) const {
    if (!has_open_.load(std::memory_order_acquire)) return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    const Complete* complete = Find(rule);
    return complete != nullptr && complete->checking;
}

std::vector<OpenObjects::Entry> BackupProgress::OpenEntries(const SentrelDirRule& rule,
                                                            std::size_t most) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const OpenObjects* open = OpenOf(rule);
    return open == nullptr ? std::vector<OpenObjects::Entry>() : open->Entries(most);
}

std::size_t BackupProgress::OpenCount(const SentrelDirRule& rule) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const OpenObjects* open = OpenOf(rule);
    return open == nullptr ? 0 : open->Size();
}

void BackupProgress::NoteTried(const SentrelDirRule& rule, std::uint64_t round,
                               const std::string& below, const OpenObjects& rest) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = complete_.find({rule.real_path, rule.backup_path});
    if (round != round_ || known == complete_.end()) return;
    known->second.open.Remove(below);
    known->second.open.Merge(rest);
    CountOpen();
}

bool BackupProgress::TakeDue(const SentrelDirRule& rule,
                             std::chrono::steady_clock::time_point now) {
    if (!has_open_.load(std::memory_order_acquire)) return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = complete_.find({rule.real_path, rule.backup_path});
    if (known == complete_.end() || known->second.open.IsEmpty()) return false;
    Complete& complete = known->second;
    if (now < complete.next_try) return false;
    complete.rest = std::min(2 * complete.rest, kLongestRest);
    complete.next_try = now + complete.rest;
    return true;
}

void BackupProgress::RetrySoon() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [key, complete] : complete_) complete.next_try = {};
}

/// Null while the rule's copy is not complete.
const BackupProgress::Complete* BackupProgress::Find(const SentrelDirRule& rule) const {
    const auto known = complete_.find({rule.real_path, rule.backup_path});
    return known == complete_.end() ? nullptr : &known->second;
}

BackupProgress::Complete* BackupProgress::Find(const SentrelDirRule& rule) {
    return const_cast<Complete*>(std::as_const(*this).Find(rule));
}

const OpenObjects* BackupProgress::OpenOf(const SentrelDirRule& rule) const {
    const Complete* const complete = Find(rule);
    return complete == nullptr ? nullptr : &complete->open;
}

void BackupProgress::CountOpen() {
    const bool any = std::any_of(complete_.begin(), complete_.end(), [](const auto& one) {
        const Complete& complete = one.second;
        return !complete.open.IsEmpty() || !complete.held.IsEmpty() || complete.checking;
    });
    has_open_.store(any, std::memory_order_release);
}

}  // namespace Engine
