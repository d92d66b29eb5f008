#pragma once

namespace SDK {

/// The agent's CPU limit: keeps busy threads near a share of one core each. Off by default.
/// Thread-safe. A tick is one microsecond of the calling thread's CPU time (TimeUtils).
class InnerCpuCtrlUtils {
  public:
    /// Sets the limit in percent of one core, 1 to 100; 0 switches it off.
    static void SetLimitPercent(int percent);

    static bool IsEnabled();

    /// How many ticks a thread may run before it must yield.
    static unsigned long GetSuggestedRunTick();

    /// Lets the calling thread sleep after `used` ticks of work, as long as the limit asks but at
    /// most a second. Ends early when the thread's CommandInterrupter is interrupted. `file`,
    /// `line` and `task` name the caller in a trace record.
    static void AdjustThreadCpu(const char* file, int line, const char* task, unsigned long now,
                                unsigned long used);
};

}  // namespace SDK
