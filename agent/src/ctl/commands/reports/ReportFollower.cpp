// Owns the position in the report store and the retries of `--follow`. Must not format reports
// (AlarmFormat does). Runs on the main thread of morvanectl.
#include "ctl/commands/reports/ReportFollower.h"

#include <poll.h>
#include <pthread.h>
#include <sdk/time/TimeUtils.h>
#include <unistd.h>

#include <iostream>
#include <utility>

#include "ctl/client/ExitCodes.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr int kPageSize = 500;
constexpr int kWaitMs = 5000;
constexpr int kRetryMs = 500;
constexpr int kFollowTimeoutS = 30;
/// A larger --since is a time since the epoch, not a number of seconds back.
constexpr long long kEpochFrom = 1000000000;

/// Ends the program at once. Output is flushed per line, with the signals blocked.
extern "C" void ExitOnSignal(int) {
    ::_exit(kExitOk);
}

/// Blocks SIGINT and SIGTERM while it lives, so that lines are printed completely.
class SignalBlocker {
  public:
    SignalBlocker() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, &before_);
    }
    ~SignalBlocker() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalBlocker(const SignalBlocker&) = delete;
    SignalBlocker& operator=(const SignalBlocker&) = delete;

  private:
    sigset_t before_{};
};

long long LastSeq(const Json::Value& body) {
    return body["last_seq"].isIntegral() ? body["last_seq"].asInt64() : 0;
}

}  // namespace

ReportFollower::ReportFollower(const ControlClient& client, const ReportQuery& query, Sink sink,
                               std::function<void()> after_page)
    : client_(client),
      query_(query),
      sink_(std::move(sink)),
      after_page_(std::move(after_page)),
      after_(query.after),
      since_(SinceEpoch()) {}

long long ReportFollower::SinceEpoch() const {
    if (query_.since >= kEpochFrom) return query_.since;
    return SDK::TimeUtils::GetCurrentTimestampS() - query_.since;
}

std::string ReportFollower::Address(int wait_ms) const {
    std::string address = "/v1/reports?kind=" + query_.kind;
    const bool paging = query_.has_since || after_ >= 0;
    if (query_.has_since) address += "&since=" + std::to_string(since_);
    if (after_ >= 0) address += "&after=" + std::to_string(after_);
    if (paging) {
        address += "&limit=" + std::to_string(kPageSize);
    } else if (query_.limit > 0) {
        address += "&limit=" + std::to_string(query_.limit);
    }
    if (wait_ms > 0) address += "&wait_ms=" + std::to_string(wait_ms);
    return address;
}

ReportFollower::Page ReportFollower::ReadPage(int wait_ms) {
    const Answer answer = client_.Send("GET", Address(wait_ms), "", kFollowTimeoutS);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        failure_ = answer;
        return Page::kFailed;
    }
    const SignalBlocker whole_lines;
    const Json::Value& reports = answer.body["reports"];
    for (const Json::Value& report : reports) {
        if (report["seq"].isIntegral()) after_ = report["seq"].asInt64();
        if (!sink_(report)) return Page::kStop;
    }
    // A new store counts from the beginning.
    if (after_ > LastSeq(answer.body)) after_ = LastSeq(answer.body);
    after_page_();
    return reports.size() < kPageSize ? Page::kEnd : Page::kMore;
}

int ReportFollower::ReadStored() {
    Page page = Page::kMore;
    while (page == Page::kMore) {
        page = ReadPage(0);
        const bool is_paging = query_.has_since || query_.after >= 0;
        if (!is_paging && page == Page::kMore) page = Page::kEnd;
    }
    return page == Page::kFailed ? PrintFailure(failure_) : kExitOk;
}

bool ReportFollower::StartAtNewest() {
    const Answer answer = client_.Get("/v1/reports?limit=1&kind=" + query_.kind);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) {
        failure_ = answer;
        return false;
    }
    after_ = LastSeq(answer.body);
    return true;
}

int ReportFollower::Follow() {
    std::signal(SIGINT, ExitOnSignal);
    std::signal(SIGTERM, ExitOnSignal);
    if (!query_.has_since && !StartAtNewest()) return PrintFailure(failure_);
    bool was_there = !query_.has_since;
    bool told = false;
    while (!IsOutputClosed()) {
        const Page page = ReadPage(after_ >= 0 ? kWaitMs : 0);
        if (page == Page::kStop) return kExitOk;
        if (page != Page::kFailed) {
            if (told) std::cerr << "The agent answers again." << std::endl;
            told = false;
            was_there = true;
            if (after_ < 0) after_ = 0;
            continue;
        }
        if (!was_there || failure_.kind == Answer::Kind::kDenied) return PrintFailure(failure_);
        if (!told) std::cerr << failure_.problem << " Trying again…" << std::endl;
        told = true;
        ::poll(nullptr, 0, kRetryMs);
    }
    return kExitOk;
}

}  // namespace Ctl
