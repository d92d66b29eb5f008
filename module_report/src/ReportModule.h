#pragma once

#include <Poco/AutoPtr.h>
#include <framework/Module.h>

#include <memory>
#include <vector>

#include "ReportQueries.h"
#include "ReportTask.h"
#include "alarm_log/AlarmLog.h"
#include "store/ReportStore.h"

namespace Engine {

/// The module "report_module": the report store, the alarm file, the two report tasks and the
/// queries. Framework thread only.
class ReportModule : public Framework::Module {
  public:
    ReportModule();
    ~ReportModule() override;
    ReportModule(const ReportModule&) = delete;
    ReportModule& operator=(const ReportModule&) = delete;

    /// Always true: a store that cannot be opened now is opened again with the next report.
    bool Init() override;
    void UnInit() override;

  private:
    void RegisterQueries();
    void UnregisterQueries();

    std::unique_ptr<ReportStore> store_;
    std::unique_ptr<AlarmLog> alarms_;
    std::unique_ptr<ReportQueries> queries_;
    std::vector<Poco::AutoPtr<ReportTask>> tasks_;
};

}  // namespace Engine
