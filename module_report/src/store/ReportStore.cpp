// Owns the report database: opening, failures, setting aside, and its lock. Must not know SQL
// (ReportDatabase.cpp) or keep the limits (ReportMaintenance.cpp). Runs on the senders' and
// readers' threads, one at a time under mutex_; no callback runs with it held.

#include "store/ReportStore.h"

#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>

#include <algorithm>
#include <utility>

#include "store/ReportLog.h"

namespace Engine {
namespace {

constexpr int kAttempts = 2;  // the second with a new file, after a damaged one was set aside
constexpr std::size_t kMaxPageBytes = 8 * 1024 * 1024;

}  // namespace

ReportStore::ReportStore(std::string path, const ReportSettings& settings, Clock clock)
    : path_(std::move(path)), settings_(settings), clock_(std::move(clock)) {}

void ReportStore::Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Attempt(other_throttle_, "open the report store", [](ReportDatabase&) { return true; });
}

bool ReportStore::Store(Report& report) {
    report.time_ms = clock_();
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto insert = [&report](ReportDatabase& database) { return database.Insert(report); };
    if (!Attempt(store_throttle_, "store a report", insert)) {
        ++failed_;
        return false;
    }
    ++stored_;
    ++rows_;
    last_seq_ = report.seq;
    changed_.notify_all();
    return true;
}

bool ReportStore::Read(const ReportFilter& filter, std::chrono::milliseconds wait,
                       ReportPage& page) {
    const auto end = std::chrono::steady_clock::now() + wait;
    ReportFilter rest = filter;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        const auto read = [&](ReportDatabase& database) { return ReadPage(database, rest, page); };
        if (!Attempt(other_throttle_, "read reports", read)) return false;
        if (!page.reports.empty()) return true;
        const auto worth_reading = [&] { return stopping_ || last_seq_ != page.last_seq; };
        if (!changed_.wait_until(lock, end, worth_reading) || stopping_) return true;
        rest.after = page.last_seq;
    }
}

bool ReportStore::ReadPage(ReportDatabase& database, const ReportFilter& filter,
                           ReportPage& page) const {
    bool complete = false;
    if (!database.Read(filter, kMaxPageBytes, page.reports, complete) ||
        !database.FirstSeq(page.first_seq)) {
        return false;
    }
    page.more = !complete;
    page.last_seq = complete ? last_seq_ : page.reports.back().seq;
    return true;
}

bool ReportStore::Acknowledge(const std::string& exporter, std::int64_t seq) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Attempt(other_throttle_, "acknowledge reports", [&](ReportDatabase& database) {
        std::vector<ExporterState> exporters;
        if (!database.ReadExporters(exporters)) return false;
        const std::int64_t target = std::clamp<std::int64_t>(seq, 0, last_seq_);
        const bool known = std::any_of(exporters.begin(), exporters.end(), [&](const auto& state) {
            return state.name == exporter && state.acked_seq >= target;
        });
        return known || database.SetAcknowledged(exporter, target);
    });
}

bool ReportStore::ForgetExporters(const std::string& prefix) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Attempt(other_throttle_, "forget exporters",
                   [&](ReportDatabase& database) { return database.RemoveExporters(prefix); });
}

bool ReportStore::AckedSeq(const std::string& exporter, std::int64_t& seq) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<ExporterState> exporters;
    const auto read = [&](ReportDatabase& database) { return database.ReadExporters(exporters); };
    if (!Attempt(other_throttle_, "read acknowledgements", read)) return false;
    seq = 0;
    for (const ExporterState& state : exporters) {
        if (state.name == exporter) seq = state.acked_seq;
    }
    return true;
}

StoreStatus ReportStore::Status() {
    const std::lock_guard<std::mutex> lock(mutex_);
    StoreStatus status;
    std::int64_t used = 0;
    Attempt(other_throttle_, "read the state of the report store", [&](ReportDatabase& database) {
        return database.Sizes(status.bytes, used) && database.ReadExporters(status.exporters);
    });
    status.working = store_throttle_.Failures() == 0 && other_throttle_.Failures() == 0;
    if (!status.working) status.error = error_;
    status.stored = rows_;
    status.last_seq = last_seq_;
    status.reports_stored = stored_;
    status.reports_failed = failed_;
    status.reports_lost = lost_;
    status.files_set_aside = set_aside_;
    return status;
}

void ReportStore::StopWaiting() {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}

bool ReportStore::Attempt(ErrorThrottle& throttle, const char* what, const Operation& operation) {
    for (int attempt = 1;; ++attempt) {
        const bool was_open = database_ != nullptr;
        if ((was_open || OpenDatabase()) && operation(*database_)) {
            const std::uint64_t failures = throttle.Recovered();
            if (failures > 0) {
                SDK_LOG(ReportLog(), PRIO_NOTICE, "can %s again after %?u failures",
                        std::string(what), failures);
            }
            return true;
        }
        const ReportDatabase::Fault fault = database_->FaultKind();
        const std::string error = database_->Error();
        if (!was_open || fault != ReportDatabase::Fault::kTransient) CloseDatabase();
        const bool damaged = fault == ReportDatabase::Fault::kDamaged;
        if (damaged && attempt < kAttempts && SetAside(error)) continue;
        RecordFailure(throttle, what, error);
        return false;
    }
}

bool ReportStore::OpenDatabase() {
    SDK::DirUtils::MakeDirs(SDK::PathUtils::GetDirFromPath(path_), 0700);
    database_ = std::make_unique<ReportDatabase>();
    if (!database_->Open(path_) || !database_->ContinueAfter(last_seq_) ||
        !database_->LastSeq(last_seq_) || !database_->CountRows(rows_)) {
        return false;
    }
    identity_ = IdentifyFile(path_);
    return true;
}

void ReportStore::CloseDatabase() {
    const std::lock_guard<std::mutex> lock(checkpoint_mutex_);
    checkpointer_.Close();
    database_.reset();
}

bool ReportStore::SetAside(const std::string& error) {
    const std::int64_t now = clock_();
    const std::string aside = SetDatabaseAside(path_, now);
    if (aside.empty()) return false;
    ++set_aside_;
    // Readers remember sequence numbers, so numbers must not start again. When the last one is
    // unknown, the time in milliseconds is greater.
    if (last_seq_ == 0) last_seq_ = now;
    SDK_LOG(ReportLog(), PRIO_ERROR,
            "the report store %s is damaged (%s); it is kept as %s and a new one is begun", path_,
            error, aside);
    return true;
}

void ReportStore::RecordFailure(ErrorThrottle& throttle, const char* what,
                                const std::string& error) {
    error_ = error;
    if (!throttle.Failed()) return;
    SDK_LOG(ReportLog(), PRIO_ERROR, "cannot %s in %s: %s (%?u failures so far)", std::string(what),
            path_, error, throttle.Failures());
}

}  // namespace Engine
