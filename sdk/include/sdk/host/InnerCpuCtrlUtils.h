#pragma once

namespace SDK {

/// The agent's CPU-limit service: keeps a busy thread near a share of one core. Off by default. Any
/// thread. A tick is a microsecond of the calling thread's CPU time (TimeUtils).
class InnerCpuCtrlUtils {
  public:
    /// Sets the limit in percent of one core, 1 to 100; 0 switches it off.
    static void SetLimitPercent(int percent);

    static bool IsEnabled();

    /// How many ticks a thread may run before it must yield.
    static unsigned long GetSuggestedRunTick();

    /// Makes the calling thread, which has used `used` ticks since it last yielded, rest as long as
    /// the limit asks, at most a second; ends early when the thread's CommandInterrupter is
    /// interrupted. `file`, `line` and `task` name the caller in a trace record.
    static void AdjustThreadCpu(const char* file, int line, const char* task, unsigned long now,
                                unsigned long used);
};

}  // namespace SDK
