// Owns the comparisons of whole large files, their queue and their results. It must not decide what
// is done about a difference (the inotify task does) nor write anything.
#include "feature_sentrel/event_path/LargeFileCheck.h"

#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace Engine {

namespace {

constexpr off_t kPiece = 1024 * 1024;  // between two looks at the clock and at a stop
constexpr int kLowestPriority = 19;
constexpr std::chrono::seconds kFirstRest{1};
constexpr unsigned kMostDoublings = 9;  // 512 s

}  // namespace

LargeFileCheck::LargeFileCheck(std::function<void()> finished, Limits limits)
    : finished_(std::move(finished)), limits_(limits) {}

LargeFileCheck::~LargeFileCheck() {
    Stop();
}

LargeFileCheck::Answer LargeFileCheck::Ask(const std::string& watch_id, const std::string& path,
                                           std::shared_ptr<const AnchoredRule> anchors) {
    struct stat live {};
    struct stat copy {};
    // What is gone or replaced has its own event.
    if (anchors->StatLive(path, live) != 0 || anchors->StatCopy(path, copy) != 0) {
        return Answer::kLater;
    }
    const SDK::FilePair::State state{SDK::FilePair::FileState::Of(live),
                                     SDK::FilePair::FileState::Of(copy)};
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto known = results_.find(state);
        if (known != results_.end()) return known->second ? Answer::kEqual : Answer::kDifferent;
        if (names_.count({watch_id, path}) != 0) return Answer::kLater;
        if (waiting_.size() >= limits_.waiting) {
            left_out_.insert(watch_id);
            return Answer::kLater;
        }
        names_.emplace(watch_id, path);
        waiting_.push_back({watch_id, path, std::move(anchors), Clock::now()});
    }
    changed_.notify_one();
    if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
    return Answer::kLater;
}

std::vector<FileChange> LargeFileCheck::TakeDifferent() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(different_, {});
}

std::set<std::string> LargeFileCheck::TakeLeftOut() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return 2 * waiting_.size() < limits_.waiting ? std::exchange(left_out_, {})
                                                 : std::set<std::string>();
}

std::size_t LargeFileCheck::Waiting() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return names_.size();
}

void LargeFileCheck::Stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = false;
    waiting_.clear();
    names_.clear();
    different_.clear();
    left_out_.clear();
}

void LargeFileCheck::Work() {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kLowestPriority);
    Job job;
    while (TakeNext(job)) {
        const Progress progress = Compare(job);
        Conclude(std::move(job), progress);
        if (progress == Progress::kDifferent) finished_();
    }
}

/// Waits for the first job that is due. False when the thread must end.
bool LargeFileCheck::TakeNext(Job& next) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        const auto first =
            std::min_element(waiting_.begin(), waiting_.end(),
                             [](const Job& one, const Job& other) { return one.due < other.due; });
        if (first == waiting_.end()) {
            changed_.wait(lock);
        } else if (const auto due = first->due; due > Clock::now()) {
            changed_.wait_until(lock, due);
        } else {
            next = std::move(*first);
            waiting_.erase(first);
            return true;
        }
    }
    return false;
}

LargeFileCheck::Progress LargeFileCheck::Compare(Job& job) {
    const SDK::FilePair pair(job.anchors->Live(job.path), job.anchors->Copy(job.path));
    if (!pair.IsOpen()) return Progress::kGone;
    const SDK::FilePair::State now = pair.Now();
    if (!(now == job.state)) {
        job.state = now;
        job.compared = 0;
    }
    if (job.compared == 0) job.begun = std::time(nullptr);
    const Progress progress = CompareTurn(pair, job);
    return pair.Now() == job.state ? progress : Progress::kUnsettled;
}

LargeFileCheck::Progress LargeFileCheck::CompareTurn(const SDK::FilePair& pair, Job& job) {
    const off_t size = job.state.copy.size;
    if (job.state.live.size != size) return Progress::kDifferent;
    const auto begun = Clock::now();
    const off_t from = job.compared;
    const off_t end = std::min(size, from + limits_.bytes_per_turn);
    while (job.compared < end) {
        const off_t next = std::min(end, job.compared + kPiece);
        const int equal = pair.IsEqual(job.compared, next);
        if (equal < 0) return Progress::kUnsettled;
        if (equal == 0) return Progress::kDifferent;
        bytes_ += static_cast<std::uint64_t>(next - job.compared);
        job.compared = next;
        if (!Pace(begun, next - from)) return Progress::kUnsettled;
    }
    return end == size ? Progress::kEqual : Progress::kMore;
}

/// Waits until as many bytes are due. False when the thread must end.
bool LargeFileCheck::Pace(Clock::time_point begun, off_t bytes) {
    const auto due = begun + std::chrono::milliseconds(bytes * 1000 / limits_.bytes_per_second);
    std::unique_lock<std::mutex> lock(mutex_);
    return !changed_.wait_until(lock, due, [this] { return stopping_; });
}

void LargeFileCheck::Conclude(Job job, Progress progress) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    if (progress == Progress::kEqual && !IsSettled(job)) {
        job.compared = 0;
        job.due = Clock::now() + limits_.settled_after;
        waiting_.push_back(std::move(job));
        return;
    }
    switch (progress) {
        case Progress::kUnsettled:
            job.compared = 0;
            job.due = Clock::now() + kFirstRest * (1U << std::min(job.unsettled, kMostDoublings));
            ++job.unsettled;
            waiting_.push_back(std::move(job));
            return;
        case Progress::kMore:
            job.due = Clock::now();  // behind those that wait
            waiting_.push_back(std::move(job));
            return;
        case Progress::kDifferent:
            different_.push_back(
                {job.watch_id, job.path, IN_MODIFY, job.asked, 0, ChangeOrigin::kRetry});
            break;
        case Progress::kEqual:
        case Progress::kGone:  // or replaced, which has its own event
            break;
    }
    if (progress != Progress::kGone) Remember(job.state, progress == Progress::kEqual);
    names_.erase({job.watch_id, job.path});
}

bool LargeFileCheck::IsSettled(const Job& job) const {
    return job.begun >= job.state.live.changed_s + limits_.settled_after.count();
}

void LargeFileCheck::Remember(const SDK::FilePair::State& state, bool is_equal) {
    if (!results_.insert_or_assign(state, is_equal).second) return;
    by_age_.push_back(state);
    if (by_age_.size() <= limits_.results) return;
    results_.erase(by_age_.front());
    by_age_.pop_front();
}

}  // namespace Engine
