// Owns the thread that compares contents and its time budget. It must not decide what is compared
// (the inotify task does) nor send alarms (AlarmReporter does).
#include "feature_sentrel/alarms/DifferenceWorker.h"

#include <Poco/String.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "feature_sentrel/alarms/ContentDiff.h"

namespace Engine {

namespace {

/// In a storm, restores need the processors more. Commands of this thread inherit its priority.
constexpr int kNiceness = 10;
/// Writes of a burst are made together.
constexpr std::chrono::milliseconds kWriteDelay{50};

/// Negative when it cannot be told: no regular file, or one that claims to be from the future.
std::chrono::steady_clock::duration TimeSinceWritten(int file) {
    struct stat info {};
    std::timespec now{};
    if (file < 0 || ::fstat(file, &info) != 0 || !S_ISREG(info.st_mode))
        return -std::chrono::seconds(1);
    // The clock of file times, which is a tick behind.
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return std::chrono::seconds(now.tv_sec - info.st_mtim.tv_sec) +
           std::chrono::nanoseconds(now.tv_nsec - info.st_mtim.tv_nsec);
}

}  // namespace

DifferenceWorker::DifferenceWorker(std::function<void()> finished,
                                   std::chrono::milliseconds settle_time)
    : finished_(std::move(finished)), settle_time_(settle_time) {}

DifferenceWorker::~DifferenceWorker() {
    Stop();
}

void DifferenceWorker::KeepIn(std::unique_ptr<Evidence::EvidenceStore> evidence) {
    Stop();
    evidence_ = std::move(evidence);
}

std::shared_ptr<const Difference> DifferenceWorker::Ask(PinnedFile pinned, const std::string& copy,
                                                        const std::string& path, bool is_shown) {
    return Add(waiting_, std::make_shared<Difference>(std::move(pinned), copy, path, is_shown));
}

std::shared_ptr<const Difference> DifferenceWorker::Keep(PinnedFile pinned,
                                                         const std::string& path) {
    return Add(later_, std::make_shared<Difference>(std::move(pinned), "", path, false));
}

std::shared_ptr<const Difference> DifferenceWorker::Add(
    std::deque<std::shared_ptr<Difference>>& queue, std::shared_ptr<Difference> request) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        queue.push_back(request);
    }
    changed_.notify_one();
    if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
    return request;
}

void DifferenceWorker::Stop() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    interrupter_.Interrupt();
    changed_.notify_one();
    thread_.join();
    interrupter_.Reset();
    stopping_ = false;
}

void DifferenceWorker::Work() {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kNiceness);
    const SDK::CommandInterrupter::Scope scope(interrupter_);
    for (;;) {
        std::shared_ptr<Difference> next;
        bool stopping = false;
        bool has_alarm = false;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            AwaitRequest(lock);
            has_alarm = !waiting_.empty();
            auto& queue = has_alarm ? waiting_ : later_;
            if (queue.empty()) break;
            next = std::move(queue.front());
            queue.pop_front();
            stopping = stopping_;
        }
        AwaitWriter(*next, has_alarm ? kMostSettling : 1);
        SaveUp();
        KeepContent(*next);
        if (!next->is_shown_) {
            // Nothing is compared.
        } else if (stopping || saved_ <= Clock::duration::zero()) {
            next->left_out_ = true;
        } else {
            FindOut(*next);
        }
        next->pinned_ = PinnedFile();
        next->ready_.store(true, std::memory_order_release);
        finished_();
    }
    if (evidence_ != nullptr) evidence_->Write();
}

/// Returns with a request, or without one when the thread must end. Writes evidence meanwhile: no
/// alarm waits for that.
void DifferenceWorker::AwaitRequest(std::unique_lock<std::mutex>& lock) {
    const auto is_over = [this] { return stopping_ || !waiting_.empty() || !later_.empty(); };
    while (evidence_ != nullptr && evidence_->HasWaiting()) {
        if (changed_.wait_for(lock, kWriteDelay, is_over)) return;
        lock.unlock();
        evidence_->Write();
        lock.lock();
    }
    changed_.wait(lock, is_over);
}

/// Ends at once when `most` alarms wait.
void DifferenceWorker::AwaitWriter(const Difference& difference, std::size_t most) {
    const auto is_over = [&] { return stopping_ || waiting_.size() >= most; };
    for (int settle = 0; settle < kMostSettles; ++settle) {
        const auto age = TimeSinceWritten(difference.pinned_.Descriptor());
        if (age < Clock::duration::zero() || age >= settle_time_) return;
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_for(lock, settle_time_ - age, is_over)) return;
    }
}

void DifferenceWorker::FindOut(Difference& difference) {
    const Clock::time_point begun = Clock::now();
    const std::string held = difference.pinned_.Path();
    ContentDiff diff(difference.copy_, held);
    difference.text_ = diff.Take();
    // diff prints the names of binary files that differ.
    Poco::replaceInPlace(difference.text_, held, difference.path_);
    difference.left_out_ = diff.IsLeftOut();
    saved_ -= Clock::now() - begun;
}

void DifferenceWorker::KeepContent(Difference& difference) {
    if (evidence_ == nullptr) return;
    const auto record = evidence_->Keep(difference.pinned_.Descriptor(), difference.path_,
                                        std::max<std::uint64_t>(saved_bytes_, kAlwaysKeptBytes));
    if (!record) return;
    saved_bytes_ -= std::min<std::uint64_t>(saved_bytes_, record->kept);
    difference.evidence_id_ = record->id;
}

void DifferenceWorker::SaveUp() {
    const Clock::time_point now = Clock::now();
    const auto passed = now - saved_at_;
    saved_ =
        std::min<Clock::duration>(saved_ + passed * kAddedPerSecond.count() / 1000, kMostSaved);
    const double seconds = std::chrono::duration<double>(passed).count();
    const double bytes = static_cast<double>(saved_bytes_) + seconds * kAddedBytesPerSecond;
    saved_bytes_ =
        static_cast<std::uint64_t>(std::min(bytes, static_cast<double>(kMostSavedBytes)));
    saved_at_ = now;
}

}  // namespace Engine
