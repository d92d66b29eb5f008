#pragma once

#include <framework/Task.h>

#include <string>

namespace Engine {

class AlarmLog;
class ReportStore;

constexpr const char* kCmdReportTask = "cmd_comm_report_task";
constexpr const char* kDataReportTask = "data_comm_report_task";

/// A task that takes reports. A message, queued or direct, is stored on the sender's thread before
/// the sender goes on, so its queue stays empty; its own thread keeps the store within its bounds.
/// Store and alarm file are borrowed and outlive the registration.
class ReportTask : public Framework::Task {
  public:
    ReportTask(const std::string& id, ReportStore& store, AlarmLog& alarms);

    int Run() override;

    /// True when the report is stored. False, and the message stays the caller's, when it could not
    /// be stored or is no report.
    bool EnqueueMsg(Framework::Message* msg) override;

    /// 0 when the report is stored; -1 when it could not be, -2 when the message is no report.
    int InterceptMsg(Framework::Message* msg, std::string& reply) override;

  private:
    int StoreMessage(const Framework::Message* msg);

    ReportStore& store_;
    AlarmLog& alarms_;
};

}  // namespace Engine
