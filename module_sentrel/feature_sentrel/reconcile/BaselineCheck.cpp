// Owns the thread that compares protected paths with their manifests. It must not judge what it
// finds (the inotify task does).
#include "feature_sentrel/reconcile/BaselineCheck.h"

#include <utility>

#include "rsync/RsyncExclusions.h"

namespace Engine {

namespace {

constexpr std::size_t kMostResults = 4096;
// A comparison of all contents must not be felt: a tenth of the time.
constexpr std::chrono::milliseconds kBusy{5};
constexpr int kRestPerBusy = 9;

}  // namespace

void BaselineCheck::Start(Job job) {
    const std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
    if (!thread_.joinable()) thread_ = std::thread([this] { Work(); });
    changed_.notify_all();
}

std::vector<BaselineCheck::Found> BaselineCheck::Take(std::size_t most) {
    std::vector<Found> found;
    const std::lock_guard<std::mutex> lock(mutex_);
    while (found.size() < most && !results_.empty()) {
        auto* const next = std::get_if<Found>(&results_.front());
        if (next == nullptr) break;
        found.push_back(std::move(*next));
        results_.pop_front();
    }
    changed_.notify_all();
    return found;
}

std::optional<BaselineCheck::Ended> BaselineCheck::TakeEnded() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (results_.empty()) return std::nullopt;
    auto* const next = std::get_if<Ended>(&results_.front());
    if (next == nullptr) return std::nullopt;
    std::optional<Ended> ended(std::move(*next));
    results_.pop_front();
    return ended;
}

bool BaselineCheck::IsIdle() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return jobs_.empty() && results_.empty() && !running_;
}

void BaselineCheck::Stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        jobs_.clear();
        changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
    results_.clear();
    stopping_ = false;
}

void BaselineCheck::Work() {
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            running_ = false;
            changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
            running_ = true;
        }
        Run(job);
    }
}

void BaselineCheck::Run(const Job& job) {
    const AnchoredRule& rule = *job.places;
    const RsyncExclusions exclusions(job.manifest->Info().exclusions);
    Ended ended;
    ended.job = job;
    const auto begun = std::chrono::steady_clock::now();
    busy_since_ = begun;
    Baseline::TreeVerifier::Request request;
    request.root = LiveTree(rule);
    request.manifest = job.manifest.get();
    request.full = job.purpose != Purpose::kStart;
    request.below = job.below;
    request.ignored = [&](const std::string& path, bool is_directory) {
        return exclusions.Match(PathIn(rule, path), is_directory);
    };
    request.is_over = [this, &job] { return IsOver(job.purpose); };
    request.found = [&](const Baseline::Difference& difference) {
        ++ended.found;
        Put(Found{job.watch_id, job.purpose, difference, job.request});
    };
    if (request.root.anchor != nullptr) {
        ended.summary = Baseline::TreeVerifier(std::move(request)).Run();
    } else {
        request.found({Baseline::Difference::Kind::kMissing, "", true});
        ended.summary.is_complete = true;
    }
    ended.duration = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - begun);
    Put(std::move(ended));
}

void BaselineCheck::Put(Item item) {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return stopping_ || results_.size() < kMostResults; });
        results_.push_back(std::move(item));
    }
    wake_();
}

bool BaselineCheck::IsOver(Purpose purpose) {
    if (stopping_) return true;
    const auto now = std::chrono::steady_clock::now();
    if (purpose != Purpose::kDaily || now - busy_since_ < kBusy) return false;
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kRestPerBusy * (now - busy_since_), [this] { return !!stopping_; });
    busy_since_ = std::chrono::steady_clock::now();
    return stopping_;
}

}  // namespace Engine
