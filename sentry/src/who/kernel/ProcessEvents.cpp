// Owns the BPF programs and their ring buffer. Must not judge (WhoRoom does).
#include "who/kernel/ProcessEvents.h"

#include <bpf/libbpf.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "process.skel.h"
#include "who/kernel/bpf/process_event.h"
#include "who/process/CommandLine.h"
#include "who/process/ProcFs.h"

namespace Sentry {

namespace {

constexpr std::size_t kMostCgroups = 4096;
constexpr std::size_t kMostWakes = 4096;
constexpr std::uint64_t kNanosecondsPerTick = kSecond / 100;

User UserOf(const process_event& event) {
    return {event.uid, event.euid};
}

Nanoseconds TimeOf(const process_event& event) {
    return static_cast<Nanoseconds>(event.at);
}

Program ProgramOf(const process_event& event) {
    Program program;
    if (event.exe_begin < EXE_SIZE) {
        program.exe.assign(event.exe + event.exe_begin, EXE_SIZE - event.exe_begin);
    }
    if (event.args_size <= ARGS_SIZE) {
        program.cmdline = SafeCommandLine({event.args, event.args_size});
    }
    return program;
}

}  // namespace

class ProcessEvents::Programs {
  public:
    Programs() = default;
    Programs(const Programs&) = delete;
    Programs& operator=(const Programs&) = delete;
    ~Programs() {
        ring_buffer__free(ring);
        process_bpf__destroy(skeleton);
    }
    process_bpf* skeleton = nullptr;
    ring_buffer* ring = nullptr;
};

ProcessEvents::ProcessEvents(ProcessTable& table, pid_t reader, int changes) : table_(table) {
    if (!ProcFs::IsFirstNamespace()) {
        problem_ = "the sentry runs in a namespace of processes of its own";
        return;
    }
    libbpf_set_print(nullptr);
    auto programs = std::make_unique<Programs>();
    programs->skeleton = process_bpf__open();
    bool is_loaded = programs->skeleton != nullptr;
    if (is_loaded) {
        programs->skeleton->rodata->reader = static_cast<unsigned int>(reader);
        programs->skeleton->rodata->changes = changes;
        is_loaded = process_bpf__load(programs->skeleton) == 0 &&
                    process_bpf__attach(programs->skeleton) == 0;
    }
    if (is_loaded) {
        programs->ring = ring_buffer__new(bpf_map__fd(programs->skeleton->maps.ring),
                                          &ProcessEvents::Take, this, nullptr);
    }
    if (programs->ring == nullptr) {
        problem_ = std::string("the kernel refuses BPF programs: ") + std::strerror(errno);
        return;
    }
    programs_ = std::move(programs);
    table_.BeginEvents();
}

ProcessEvents::~ProcessEvents() = default;

int ProcessEvents::Descriptor() const {
    return programs_ ? ring_buffer__epoll_fd(programs_->ring) : -1;
}

void ProcessEvents::Read() {
    if (!programs_) return;
    ring_buffer__consume(programs_->ring);
    const std::uint64_t lost = programs_->skeleton->bss->lost;
    if (lost != lost_) table_.OnLost();
    lost_ = lost;
}

std::optional<ProcessEvents::Wake> ProcessEvents::TakeWake(pid_t pid, Nanoseconds earliest,
                                                           Nanoseconds latest) {
    while (!wakes_.empty() && wakes_.front().at < earliest) wakes_.pop_front();
    for (const Wake& wake : wakes_) {
        if (wake.at > latest) break;
        if (wake.pid == pid) return wake;
    }
    return std::nullopt;
}

int ProcessEvents::Take(void* self, void* data, std::size_t size) {
    static_cast<ProcessEvents*>(self)->Take(data, size);
    return 0;
}

void ProcessEvents::Take(const void* data, std::size_t size) {
    const auto& event = *static_cast<const process_event*>(data);
    const auto pid = static_cast<pid_t>(event.pid);
    const auto parent = static_cast<pid_t>(event.parent);
    const std::uint64_t start = event.start / kNanosecondsPerTick;
    switch (event.kind) {
        case PROCESS_FORK:
            return table_.OnFork(parent, pid, start, TimeOf(event));
        case PROCESS_EXIT:
            return table_.OnExit(pid, UserOf(event), TimeOf(event));
        case PROCESS_WAKE:
            if (wakes_.size() >= kMostWakes) wakes_.pop_front();
            wakes_.push_back({pid, UserOf(event), TimeOf(event)});
            return;
        case PROCESS_EXEC:
            break;
        default:
            return;
    }
    if (size < sizeof(event)) return;
    table_.OnExec({pid, parent, start, ProgramOf(event), UserOf(event), event.login, event.session,
                   CgroupOf(event.cgroup, pid), event.waiting},
                  TimeOf(event));
}

/// Empty when it cannot be told any more: then the process keeps its parent's.
const std::string& ProcessEvents::CgroupOf(std::uint64_t id, pid_t pid) {
    const auto found = cgroups_.find(id);
    if (found != cgroups_.end() && !found->second.empty()) return found->second;
    if (cgroups_.size() >= kMostCgroups) cgroups_.clear();
    return cgroups_[id] = ProcFs::CgroupOf(pid);
}

}  // namespace Sentry
