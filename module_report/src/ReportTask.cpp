// Converts messages to reports; owns nothing. Must not know files or tables (ReportStore.cpp,
// AlarmLog.cpp). Messages arrive on the senders' threads, several at a time; Run has its own
// thread. Deletes a queued message once it is stored.

#include "ReportTask.h"

#include <framework/Message.h>
#include <sdk/log/Log.h>

#include <exception>
#include <memory>

#include "alarm_log/AlarmLog.h"
#include "store/ReportLog.h"
#include "store/ReportStore.h"

namespace Engine {
namespace {

constexpr unsigned int kQueueCapacity = 1;
constexpr int kStored = 0;
constexpr int kNotStored = -1;
constexpr int kNoReport = -2;

bool ToReport(const Framework::Message* msg, Report& report) {
    if (const auto* cmd = dynamic_cast<const Framework::CmdMessage*>(msg)) {
        report.kind = kCmdKind;
        report.name = cmd->GetMsgId();
        report.body = cmd->GetBody();
        return true;
    }
    if (const auto* data = dynamic_cast<const Framework::DataMessage*>(msg)) {
        report.kind = kDataKind;
        report.name = data->GetEvent();
        report.body = data->GetBody();
        report.outcome = data->GetNote().outcome;
        report.duration_ms = data->GetNote().duration_ms;
        report.evidence = data->GetNote().evidence;
        report.who = data->GetNote().who;
        report.is_json_line = data->GetNote().is_json_line;
        return true;
    }
    return false;
}

}  // namespace

ReportTask::ReportTask(const std::string& id, ReportStore& store, AlarmLog& alarms)
    : Framework::Task(id, kReportModuleName, Framework::TaskCondition::kPeriodic, kQueueCapacity),
      store_(store),
      alarms_(alarms) {}

int ReportTask::Run() {
    store_.Maintain();
    return 0;
}

bool ReportTask::EnqueueMsg(Framework::Message* msg) {
    if (StoreMessage(msg) != kStored) return false;
    const std::unique_ptr<Framework::Message> done(msg);
    return true;
}

int ReportTask::InterceptMsg(Framework::Message* msg, std::string& /*reply*/) {
    return StoreMessage(msg);
}

int ReportTask::StoreMessage(const Framework::Message* msg) {
    try {
        Report report;
        if (!ToReport(msg, report)) {
            SDK_LOG(ReportLog(), PRIO_ERROR, "%s refuses a message that is no report", Id());
            return kNoReport;
        }
        const bool stored = store_.Store(report);
        // Also when the store fails: the log shipper's copy may be the only one.
        if (report.kind == kDataKind && report.name == kAlarmEvent) {
            report.is_json_line ? alarms_.AppendLine(report.body) : alarms_.Append(report.body);
        }
        return stored ? kStored : kNotStored;
    } catch (const std::exception& error) {
        SDK_LOG(ReportLog(), PRIO_ERROR, "%s cannot take a report: %s", Id(),
                std::string(error.what()));
        return kNotStored;
    }
}

}  // namespace Engine
