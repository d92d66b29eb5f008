#pragma once

#include <json/value.h>

namespace Engine {

class AlarmLog;
class ReportStore;

/// The module's answers to other components, as JSON. Any thread; both objects are borrowed.
class ReportQueries {
  public:
    ReportQueries(ReportStore& store, AlarmLog& alarms) : store_(store), alarms_(alarms) {}

    /// "reports.read": {"kind":"cmd"|"data"|"alarm"|"", "after":SEQ, "since":EPOCH_SECONDS,
    /// "limit":N, "wait_ms":N, "exporter":NAME}, all optional. {"reports":[...],"last_seq":N,
    /// "more":bool}, ascending: all that match up to last_seq, which is the "after" to go on from;
    /// "more" when the limit or the size of the answer may have cut off later ones. With an
    /// exporter, only what it has not acknowledged. Without "after", "since" and "exporter", the
    /// newest `limit`. Waits up to wait_ms (at most a minute) for the first match. A request or
    /// store that is wrong: {"error":"..."}.
    Json::Value Read(const Json::Value& request);

    /// "reports.ack": {"exporter":NAME,"seq":N} gives {"exporter":NAME,"acked_seq":N}, which never
    /// goes back, or {"error":"..."}.
    Json::Value Acknowledge(const Json::Value& request);

    /// "status.report".
    Json::Value Status();

  private:
    ReportStore& store_;
    AlarmLog& alarms_;
};

}  // namespace Engine
