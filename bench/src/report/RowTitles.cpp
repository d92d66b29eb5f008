#include "report/Limits.h"

namespace Bench {

const std::vector<RowTitle>& RowTitles() {
    static const std::vector<RowTitle> kTitles = {
        {"restore_4k", "One file of 4 KiB modified: change to content back", "ms", "bare rsync"},
        {"restore_4k_exit", "The same: bare rsync's start to its exit", "ms", ""},
        {"restore_1m", "One file of 1 MiB modified", "ms", "bare rsync"},
        {"restore_1m_exit", "The same: bare rsync's start to its exit", "ms", ""},
        {"restore_10m", "One file of 10 MiB modified", "ms", "bare rsync"},
        {"restore_10m_exit", "The same: bare rsync's start to its exit", "ms", ""},
        {"burst_1000", "1,000 files modified at once: all back", "ms", "bare rsync"},
        {"burst_1000_each", "The same, a file", "ms", "bare rsync"},
        {"burst_1000_reported", "The same: files reported with their difference", "files", ""},
        {"burst_1000_cpu", "The same: the agent's own processor time a file", "µs", ""},
        {"burst_1000_memory", "The same: most memory of the lasting processes since the start",
         "MiB", ""},
        {"storm_30000", "30,000 files modified at once: all back", "ms", "bare rsync, whole tree"},
        {"storm_30000_each", "The same, a file", "ms", ""},
        {"storm_30000_left", "The same: files left tampered", "files", ""},
        {"storm_30000_reported", "The same: files reported", "files", ""},
        {"storm_30000_memory", "The same: most memory of the agent since its start", "MiB", ""},
        {"added_10000", "10,000 files added: all removed and reported, after the last", "ms", ""},
        {"added_10000_removed", "The same: all removed", "ms", ""},
        {"removed_nested", "rm -rf of 100 directories with 100 files each: back in full", "ms",
         "bare rsync"},
        {"removed_nested_rm", "The same: rm itself", "ms", "bare rsync"},
        {"removed_flat", "rm -rf of one directory with 10,000 files: back in full", "ms",
         "bare rsync"},
        {"removed_flat_rm", "The same: rm itself", "ms", "bare rsync"},
        {"ready_1000", "Ready on 1,000 directories", "ms", "raw walk and watch"},
        {"ready_10000", "Ready on 10,000 directories", "ms", "raw walk and watch"},
        {"ready_100000", "Ready on 100,000 directories", "ms", "raw walk and watch"},
        {"memory_1000", "Memory per watched directory of 1,000, 10 names each", "bytes", ""},
        {"memory_10000", "Memory per watched directory of 10,000, 10 names each", "bytes", ""},
        {"memory_100000", "Memory per watched directory of 100,000, 10 names each", "bytes", ""},
        {"latency_1000", "4 KiB back in a tree of 1,000 directories", "ms", "bare rsync"},
        {"latency_10000", "4 KiB back in a tree of 10,000 directories", "ms", "bare rsync"},
        {"latency_100000", "4 KiB back in a tree of 100,000 directories", "ms", "bare rsync"},
        {"rest_100000", "Processor time at rest, 100,000 directories", "% of a core", ""},
        {"events_ignored", "Events of ignored files: the writer's rate", "a second", "nobody"},
        {"events_ignored_overflows", "The same: overflows", "", ""},
        {"events_ignored_settled", "The same: from the last event until all are read", "ms", ""},
        {"events_unchanged", "Events of unchanged files: the writer's rate", "a second", "nobody"},
        {"events_unchanged_overflows", "The same: overflows", "", ""},
        {"events_unchanged_settled", "The same: from the last event until all are judged", "ms",
         ""},
        {"drain_ignored", "A backlog of ignored events: drained", "a second", ""},
        {"overflow_left", "Queue overflowed: of 3,000 files left tampered for good", "files", ""},
        {"overflow_back", "The same: until all were back", "ms", ""},
        {"backup_200000", "First backup of 200,000 files", "ms", "bare rsync"},
    };
    return kTitles;
}

}  // namespace Bench
