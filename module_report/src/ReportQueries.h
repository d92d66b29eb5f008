#pragma once

#include <json/value.h>

namespace Engine {

class AlarmLog;
class ReportStore;

/// The module's answers to other components, as JSON. Both objects are borrowed. Thread-safe.
class ReportQueries {
  public:
    ReportQueries(ReportStore& store, AlarmLog& alarms) : store_(store), alarms_(alarms) {}

    /// "reports.read": {"kind":"cmd"|"data"|"alarm"|"", "after":SEQ, "since":EPOCH_SECONDS,
    /// "limit":N, "wait_ms":N, "exporter":NAME}, all optional. The answer:
    /// {"reports":[...],"first_seq":N,"last_seq":N,"more":bool}; "first_seq" is that of the oldest
    /// report in the store, 0 when there is none.
    /// The reports are all matches up to last_seq, ascending; continue with last_seq as "after".
    /// "more": the limit or the size of the answer may have cut off later ones. With "exporter":
    /// only reports that it has not acknowledged. Without "after", "since" and "exporter": the
    /// newest `limit`. Blocks up to wait_ms (at most a minute) for the first match. {"error":"..."}
    /// for a wrong request or an unreadable store.
    Json::Value Read(const Json::Value& request);

    /// "reports.ack": {"exporter":NAME,"seq":N} gives {"exporter":NAME,"acked_seq":N}, which never
    /// decreases, or {"error":"..."}.
    Json::Value Acknowledge(const Json::Value& request);

    /// "status.report".
    Json::Value Status();

  private:
    ReportStore& store_;
    AlarmLog& alarms_;
};

}  // namespace Engine
