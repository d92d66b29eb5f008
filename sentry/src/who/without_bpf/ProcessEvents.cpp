// Stands for kernel/ProcessEvents.cpp in a build without BPF.
#include "who/kernel/ProcessEvents.h"

namespace Sentry {

class ProcessEvents::Programs {};

ProcessEvents::ProcessEvents(ProcessTable& table, pid_t, int)
    : table_(table), problem_("this build has no BPF programs") {}

ProcessEvents::~ProcessEvents() = default;

int ProcessEvents::Descriptor() const {
    return -1;
}

void ProcessEvents::Read() {}

std::optional<ProcessEvents::Wake> ProcessEvents::TakeWake(pid_t, Nanoseconds, Nanoseconds) {
    return std::nullopt;
}

}  // namespace Sentry
