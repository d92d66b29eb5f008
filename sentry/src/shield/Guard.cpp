// Owns the questions of the kernel until they are answered. Must not judge files (Judge does).
#include "shield/Guard.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Sentry {

namespace {

constexpr unsigned int kWorkers = 2;
constexpr std::size_t kMostOpen = 4096;  // each holds a descriptor; more are let through
constexpr std::size_t kBufferBytes = 16384;
constexpr std::chrono::seconds kBetweenTold{60};

const char* ModeText(ShieldMode mode) {
    switch (mode) {
        case ShieldMode::kHeal:
            return "heal";
        case ShieldMode::kDeny:
            return "deny";
        default:
            return "monitor";
    }
}

}  // namespace

Guard::Guard(std::shared_ptr<const ShieldRule> rule, const Settings& settings, Judge::Healed healed,
             const Judge::Trouble& trouble)
    : rule_(std::move(rule)),
      settings_(settings),
      trouble_(trouble),
      judge_(rule_, group_, settings.judge, std::move(healed), trouble),
      problem_(group_.Problem()),
      stop_(::eventfd(0, EFD_CLOEXEC)) {
    if (!problem_.empty()) return;
    if (!group_.GuardFile(settings_.probe_file)) {
        problem_ = std::string("fanotify: ") + std::strerror(errno);
        return;
    }
    reader_ = std::thread([this] { Read(); });
    for (unsigned int i = 0; i < kWorkers; ++i) workers_.emplace_back([this] { Work(); });
    tree_ = std::make_unique<TreeGuard>(
        *rule_, group_,
        [this](std::shared_ptr<const SDK::PathAnchor> root) { judge_.SetRoot(std::move(root)); });
}

Guard::~Guard() {
    tree_.reset();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_stopping_ = true;
    }
    changed_.notify_all();
    // The reader goes on until the workers have ended: their opens need its answers.
    for (std::thread& worker : workers_) worker.join();
    const std::uint64_t one = 1;
    while (::write(stop_.Get(), &one, sizeof(one)) < 0 && errno == EINTR) {
    }
    if (reader_.joinable()) reader_.join();
    for (const auto& question : open_) Answer(*question, true);
}

void Guard::Read() {
    int wait = -1;
    for (;;) {
        pollfd ready[] = {{group_.Descriptor(), POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
        if (::poll(ready, std::size(ready), wait) < 0 && errno != EINTR) return;
        if (ready[1].revents != 0) return;
        if (ready[0].revents != 0) TakeQuestions();
        wait = LetLateThrough();
    }
}

void Guard::TakeQuestions() {
    alignas(fanotify_event_metadata) std::array<char, kBufferBytes> buffer{};
    // EWOULDBLOCK also of a file with a lease: the kernel has refused that open.
    ssize_t size = ::read(group_.Descriptor(), buffer.data(), buffer.size());
    const auto* event = reinterpret_cast<const fanotify_event_metadata*>(buffer.data());
    for (; FAN_EVENT_OK(event, size); event = FAN_EVENT_NEXT(event, size)) {
        if (event->fd >= 0) Take(SDK::FileDescriptor(event->fd), event->pid);
    }
}

void Guard::Take(SDK::FileDescriptor file, pid_t process) {
    auto question = std::make_shared<Question>();
    question->file = std::move(file);
    question->process = process;
    question->asked = Clock::now();
    if (PassesAtOnce(process)) return Answer(*question, true);
    if (open_.size() >= kMostOpen) {
        Answer(*question, true);
        return NoteLate(1);
    }
    open_.push_back(question);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.push_back(std::move(question));
    }
    changed_.notify_one();
}

bool Guard::PassesAtOnce(pid_t process) const {
    return process == ::getpid() || process == settings_.judge.agent ||
           process == settings_.watchdog;
}

/// Returns the milliseconds until the next is late; -1: none waits.
int Guard::LetLateThrough() {
    std::size_t late = 0;
    const Clock::time_point now = Clock::now();
    while (!open_.empty()) {
        Question& first = *open_.front();
        if (!first.is_answered) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(first.asked + settings_.limit - now);
            if (left.count() > 0) {
                NoteLate(late);
                return static_cast<int>(left.count());
            }
            if (!first.is_answered.exchange(true)) {
                group_.Answer(first.file.Get(), true);
                ++late;
            }
        }
        open_.pop_front();
    }
    NoteLate(late);
    return -1;
}

void Guard::NoteLate(std::size_t count) {
    if (count == 0) return;
    late_ += count;
    const Clock::time_point now = Clock::now();
    if (told_ != Clock::time_point() && now - told_ < kBetweenTold) return;
    told_ = now;
    trouble_("opens were let through, because the shield could not answer in " +
             std::to_string(settings_.limit.count()) + " ms");
}

void Guard::Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return is_stopping_ || !waiting_.empty(); });
        if (is_stopping_) return;
        const std::shared_ptr<Question> question = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        if (!question->is_answered) {
            Answer(*question, judge_.Allows(question->file.Get(), question->process));
        }
        lock.lock();
    }
}

void Guard::Answer(Question& question, bool allow) const {
    if (!question.is_answered.exchange(true)) group_.Answer(question.file.Get(), allow);
}

Json::Value Guard::Status() const {
    Json::Value status(Json::objectValue);
    const Judge::Counts& counts = judge_.Counted();
    status["mode"] = ModeText(judge_.Mode());
    status["complete"] = tree_ != nullptr && tree_->IsComplete();
    status["directories"] = static_cast<Json::UInt64>(tree_ ? tree_->Directories() : 0);
    status["last_refusal"] = judge_.LastRefusal();
    status["healed"] = static_cast<Json::UInt64>(counts.healed);
    status["refused"] = static_cast<Json::UInt64>(counts.refused);
    status["passed"] = static_cast<Json::UInt64>(counts.passed);
    status["late"] = static_cast<Json::UInt64>(late_);
    return status;
}

}  // namespace Sentry
