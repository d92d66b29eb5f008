// Owns the limit. The busy threads decide when to call; each sleeps on its own thread.
#include "sdk/host/InnerCpuCtrlUtils.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <string>

#include "sdk/log/Log.h"
#include "sdk/log/LoggerUtils.h"
#include "sdk/time/CommandInterrupter.h"

namespace SDK {

namespace {

constexpr int kWholeCore = 100;
constexpr unsigned long kRunTick = 50000;        // microseconds of CPU time
constexpr unsigned long kLongestRest = 1000000;  // microseconds

std::atomic<int> limit_percent{0};

/// Microseconds of sleep that bring `used` microseconds of work down to the limit.
unsigned long RestFor(unsigned long used, int percent) {
    const auto share = static_cast<unsigned long>(percent);
    const unsigned long worked = std::min(used, kLongestRest * kWholeCore);  // no overflow
    return std::min(worked * (kWholeCore - share) / share, kLongestRest);
}

void Rest(unsigned long microseconds) {
    pollfd event{CommandInterrupter::CurrentDescriptor(), POLLIN, 0};
    const timespec time{static_cast<time_t>(microseconds / 1000000),
                        static_cast<long>(microseconds % 1000000 * 1000)};
    ::ppoll(&event, 1, &time, nullptr);
}

}  // namespace

void InnerCpuCtrlUtils::SetLimitPercent(int percent) {
    limit_percent = std::clamp(percent, 0, kWholeCore);
}

bool InnerCpuCtrlUtils::IsEnabled() {
    return limit_percent != 0;
}

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() {
    return kRunTick;
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* task,
                                        unsigned long now, unsigned long used) {
    const int percent = limit_percent;
    if (percent == 0 || percent == kWholeCore) return;
    const unsigned long rest = RestFor(used, percent);
    SDK_LOG(LoggerUtils::GetInstance()->GetRootLogger(), PRIO_TRACE,
            "%s rests %lu us after %lu us of work, %lu us in all (%s:%d)", std::string(task), rest,
            used, now, std::string(SourceBaseName(file)), line);
    Rest(rest);
}

}  // namespace SDK
