// Owns what is known of processes. Must not know how the kernel tells of them (kernel/) nor what
// they changed (TouchLog does). Under the lock of the room.
#include "who/process/ProcessTable.h"

#include <algorithm>
#include <utility>

#include "who/process/ProcFs.h"

namespace Sentry {

namespace {

constexpr std::size_t kMostPast = 4;
constexpr std::size_t kMostDepth = 16;
/// How long what /proc told of a process counts.
constexpr Nanoseconds kFresh = kSecond / 10;

constexpr const char* kNoEvents = "the kernel does not tell of processes, so /proc was read later";
constexpr const char* kEndedUnread = "the process ended before it could be read";
constexpr const char* kLateKnown = "the start of the process was not seen";
constexpr const char* kNewProgram = "the process began another program at that time";
constexpr const char* kNewUser = "the process changed its user";
constexpr const char* kReused = "two processes had that number one after the other";

enum class Order { kProgramFirst, kChangeFirst, kUnknown };

/// What came first: the beginning of a program, or the change of that moment. The queue of changes
/// keeps their order, so its length at the beginning of the program tells it, too.
Order OrderOf(Nanoseconds began, std::uint32_t waiting, const Moment& moment) {
    if (began <= moment.earliest) return Order::kProgramFirst;
    if (began > moment.latest) return Order::kChangeFirst;
    if (waiting == kUnset || began <= moment.quiet_from || began >= moment.quiet_until) {
        return Order::kUnknown;
    }
    return moment.ahead < waiting ? Order::kChangeFirst : Order::kProgramFirst;
}

}  // namespace

ProcessTable::Life* ProcessTable::Running(pid_t pid) {
    const auto found = lives_.find(pid);
    if (found == lives_.end() || found->second.back().ended != 0) return nullptr;
    return &found->second.back();
}

/// A life of that number that still counts as running has ended without our notice.
ProcessTable::Life& ProcessTable::Begin(pid_t pid, Life life) {
    Lives& lives = lives_[pid];
    if (!lives.empty() && lives.back().ended == 0) {
        lives.back().ended = std::max<Nanoseconds>(life.begun, 1);
        ended_.push_back({pid, lives.back().process->start, lives.back().ended});
    }
    lives.push_back(std::move(life));
    ++size_;
    return lives.back();
}

void ProcessTable::Inherit(Process& process, const ProcessPtr& parent) const {
    process.is_own = process.pid == agent_ || process.pid == self_ ||
                     (parent && parent->is_own && parent->pid != self_);
    process.parents.clear();
    if (!parent || parent->pid == 1) return;
    process.parents.push_back({parent->pid, parent->program});
    const std::size_t more = std::min(parent->parents.size(), kMostParents - 1);
    process.parents.insert(process.parents.end(), parent->parents.begin(),
                           parent->parents.begin() + static_cast<std::ptrdiff_t>(more));
}

/// Reads a process and those above it from /proc.
ProcessPtr ProcessTable::Learn(pid_t pid, Nanoseconds at, std::size_t depth) {
    ProcFs::Found found = ProcFs::Read(pid);
    if (!found.process) return nullptr;
    ProcessPtr parent;
    if (found.parent > 0 && depth < kMostDepth) {
        const Life* known = Running(found.parent);
        parent =
            known != nullptr && has_events_ ? known->process : Learn(found.parent, at, depth + 1);
    }
    Inherit(*found.process, parent);
    Life* known = Running(pid);
    if (known != nullptr && known->process->IsSame(*found.process)) {
        known->process = std::move(found.process);
        known->begun = std::max(known->begun, at);
        return known->process;
    }
    if (size_ >= kMostLives) return found.process;
    return Begin(pid, {std::move(found.process), {}, at}).process;
}

void ProcessTable::BeginEvents() {
    for (const pid_t pid : ProcFs::All()) {
        if (Running(pid) == nullptr) Learn(pid, 0, 0);
    }
    has_events_ = true;
}

void ProcessTable::OnFork(pid_t parent, pid_t child, std::uint64_t start, Nanoseconds at) {
    const Life* known = Running(child);
    if (known != nullptr && known->process->start == start) return;
    known = Running(parent);
    const ProcessPtr above = known != nullptr ? known->process : Learn(parent, at, 0);
    if (!above || size_ >= kMostLives) return;
    auto process = std::make_shared<Process>(*above);
    process->pid = child;
    process->start = start;
    Inherit(*process, above);
    Begin(child, {std::move(process), {}, at});
}

void ProcessTable::OnExec(const Exec& exec, Nanoseconds at) {
    Life* life = Running(exec.pid);
    auto process = std::make_shared<Process>();
    const bool is_known = life != nullptr && life->process->start == exec.start;
    if (is_known) {
        *process = *life->process;
    } else {
        process->pid = exec.pid;
        process->start = exec.start;
        const Life* parent = Running(exec.parent);
        Inherit(*process, parent != nullptr ? parent->process : Learn(exec.parent, at, 0));
    }
    process->program = std::make_shared<Program>(exec.program);
    process->user = exec.user;
    process->login = exec.login;
    process->session = exec.session;
    if (!exec.cgroup.empty()) process->cgroup = exec.cgroup;
    if (!is_known) {
        if (size_ < kMostLives) Begin(exec.pid, {std::move(process), {}, at});
        return;
    }
    // What was read from /proc at the start may be newer than this event.
    if (life->past.size() >= kMostPast) life->past.erase(life->past.begin());
    life->past.push_back({life->process, at, exec.waiting});
    life->process = std::move(process);
}

void ProcessTable::OnExit(pid_t pid, const User& user, Nanoseconds at) {
    Life* life = Running(pid);
    if (life == nullptr) return;
    life->ended = at;
    life->last_user = user;
    ended_.push_back({pid, life->process->start, at});
}

void ProcessTable::Expire(Nanoseconds now) {
    if (lost_at_ < 0) lost_at_ = now;
    while (!ended_.empty() && (ended_.front().at + kKept < now || ended_.size() > kMostEnded)) {
        const Ended oldest = ended_.front();
        ended_.pop_front();
        const auto found = lives_.find(oldest.pid);
        if (found == lives_.end()) continue;
        Lives& lives = found->second;
        const auto life = std::find_if(lives.begin(), lives.end(), [&](const Life& one) {
            return one.ended != 0 && one.process->start == oldest.start;
        });
        if (life == lives.end()) continue;
        lives.erase(life);
        --size_;
        if (lives.empty()) lives_.erase(found);
    }
}

ProcessTable::Found ProcessTable::Choose(const Life& life, const Moment& moment) {
    Found found{life.process, true, ""};
    for (auto past = life.past.rbegin(); past != life.past.rend(); ++past) {
        switch (OrderOf(past->until, past->waiting, moment)) {
            case Order::kProgramFirst:
                return found;
            case Order::kChangeFirst:
                found.process = past->process;
                break;
            case Order::kUnknown:
                // Neither program may be named.
                auto either = std::make_shared<Process>(*found.process);
                either->program = std::make_shared<Program>();
                return {std::move(either), false, kNewProgram};
        }
    }
    return found;
}

/// Without knowing what it was at the time, it is taken for what it was before and after.
ProcessTable::Found ProcessTable::WithUser(Found found, Life& life, const User* user) {
    User then = user != nullptr ? *user : life.seen_user;
    if (user != nullptr) life.seen_user = *user;
    if (then == User{}) then = found.process->user;
    User later = then;
    if (user == nullptr && life.ended != 0) later = life.last_user;
    if (user == nullptr && life.ended == 0) ProcFs::ReadUser(found.process->pid, later);
    if (later == then && then == found.process->user) return found;
    auto changed = std::make_shared<Process>(*found.process);
    changed->user = later == then ? then : User{};
    if (later == then) return {std::move(changed), found.is_exact, found.why};
    return {std::move(changed), false, kNewUser};
}

ProcessTable::Found ProcessTable::FromProc(pid_t pid, Nanoseconds latest) {
    const Life* known = Running(pid);
    if (known != nullptr && latest - known->begun < kFresh) {
        return {known->process, false, kNoEvents};
    }
    ProcessPtr process = Learn(pid, latest, 0);
    if (process) return {std::move(process), false, kNoEvents};
    if (known == nullptr) return {nullptr, false, kEndedUnread};
    // It has ended since it was read; nobody else has its number so soon.
    return {known->process, false, kNoEvents};
}

ProcessTable::Found ProcessTable::At(pid_t pid, const Moment& moment, const User* user) {
    const Nanoseconds latest = moment.latest;
    if (!has_events_) return FromProc(pid, latest);
    const auto found = lives_.find(pid);
    Life* chosen = nullptr;
    bool is_only = true;
    if (found != lives_.end()) {
        for (Life& life : found->second) {
            if (life.begun > latest || (life.ended != 0 && life.ended < moment.earliest)) continue;
            is_only = chosen == nullptr;
            chosen = &life;
        }
    }
    if (chosen == nullptr) {
        ProcessPtr process = Learn(pid, latest, 0);
        return {std::move(process), false, process ? kLateKnown : kEndedUnread};
    }
    Found result = WithUser(Choose(*chosen, moment), *chosen, user);
    if (!is_only) return {nullptr, false, kReused};
    if (lost_at_ < 0 || (lost_at_ > 0 && latest - lost_at_ < kKept && chosen->begun < lost_at_)) {
        result = {result.process, false, "events of processes were lost"};
    }
    return result;
}

}  // namespace Sentry
