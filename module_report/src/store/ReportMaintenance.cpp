// Keeps the report store within its limits, in steps that block a sender for a few milliseconds at
// most. Must not open or close the database (ReportStore.cpp does). Runs on the report tasks'
// threads.

#include <sdk/log/Log.h>

#include <algorithm>

#include "store/ReportLog.h"
#include "store/ReportStore.h"

namespace Engine {
namespace {

constexpr int kRowsPerStep = 256;
constexpr int kMaxSteps = 256;
constexpr int kPagesPerRelease = 1024;
constexpr int kCheckpointBusyMs = 50;

// The number of oldest reports to remove, by their average size.
int RowsToPrune(std::int64_t used_bytes, std::int64_t max_bytes, std::int64_t rows) {
    const std::int64_t average = std::max<std::int64_t>(used_bytes / rows, 1);
    const std::int64_t wanted = (used_bytes - max_bytes) / average + 1;
    return static_cast<int>(std::min<std::int64_t>(wanted, kRowsPerStep));
}

}  // namespace

void ReportStore::Maintain() {
    DropReplacedFile();
    for (int step = 0; step < kMaxSteps && PruneStep(); ++step) {
    }
    ReleaseSpace();
    Checkpoint();
}

void ReportStore::DropReplacedFile() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (database_ == nullptr || IdentifyFile(path_) == identity_) return;
    SDK_LOG(ReportLog(), PRIO_ERROR,
            "the report store %s was removed or replaced; it is opened anew", path_);
    CloseDatabase();
}

bool ReportStore::PruneStep() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Pruned pruned;
    const auto prune = [&](ReportDatabase& database) {
        const std::int64_t oldest = clock_() - settings_.MaxAgeMs();
        if (!database.PruneOlderThan(oldest, kRowsPerStep, pruned)) return false;
        std::int64_t file_bytes = 0;
        std::int64_t used_bytes = 0;
        if (pruned.rows > 0) return true;
        if (!database.Sizes(file_bytes, used_bytes)) return false;
        if (used_bytes <= settings_.MaxBytes() || rows_ <= 0) return true;
        return database.PruneOldest(RowsToPrune(used_bytes, settings_.MaxBytes(), rows_), pruned);
    };
    if (!Attempt(other_throttle_, "prune reports", prune)) return false;
    rows_ -= pruned.rows;
    lost_ += static_cast<std::uint64_t>(pruned.unacknowledged);
    return pruned.rows > 0;
}

void ReportStore::ReleaseSpace() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Attempt(other_throttle_, "release space", [&](ReportDatabase& database) {
        std::int64_t file_bytes = 0;
        std::int64_t used_bytes = 0;
        if (!database.Sizes(file_bytes, used_bytes)) return false;
        return file_bytes <= settings_.MaxBytes() || database.ReleasePages(kPagesPerRelease);
    });
}

void ReportStore::Checkpoint() {
    const std::lock_guard<std::mutex> lock(checkpoint_mutex_);
    if (!checkpointer_.IsOpen()) {
        // The first read makes the connection notice the write-ahead log.
        if (checkpointer_.Open(path_, kCheckpointBusyMs) != SQLITE_OK ||
            checkpointer_.Execute("SELECT 1 FROM sqlite_schema LIMIT 1") != SQLITE_OK) {
            checkpointer_.Close();
            return;
        }
    }
    // A failure also shows when reports are stored; the log file keeps them until then.
    sqlite3_wal_checkpoint_v2(checkpointer_.Handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                              nullptr);
}

}  // namespace Engine
