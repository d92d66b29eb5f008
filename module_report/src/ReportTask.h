#pragma once

#include <framework/Task.h>

#include <string>

namespace Engine {

class AlarmLog;
class ReportStore;

constexpr const char* kCmdReportTask = "cmd_comm_report_task";
constexpr const char* kDataReportTask = "data_comm_report_task";

/// A task that receives reports. It stores a message, queued or direct, on the sender's thread
/// before it returns, so its queue stays empty. Its own thread keeps the store within its limits.
/// Store and alarm file are borrowed and outlive the registration.
class ReportTask : public Framework::Task {
  public:
    ReportTask(const std::string& id, ReportStore& store, AlarmLog& alarms);

    int Run() override;

    /// True when the report is stored. False when it cannot be stored or is not a report; the
    /// caller then keeps the message. Thread-safe.
    bool EnqueueMsg(Framework::Message* msg) override;

    /// 0 when the report is stored, -1 when it cannot be stored, -2 when the message is not a
    /// report. Thread-safe.
    int InterceptMsg(Framework::Message* msg, std::string& reply) override;

  private:
    int StoreMessage(const Framework::Message* msg);

    ReportStore& store_;
    AlarmLog& alarms_;
};

}  // namespace Engine
