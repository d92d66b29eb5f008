#pragma once

#include <framework/Engine.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control/BaselineRequests.h"
#include "control/ControlServer.h"
#include "control/ReportReader.h"
#include "control/Routes.h"
#include "control/status/MetricsFile.h"
#include "control/status/StatusDocument.h"
#include "notify/Notifier.h"
#include "policy/PolicyHost.h"
#include "policy/PolicyInbox.h"
#include "policy/PolicyService.h"
#include "policy/PolicyStore.h"
#include "process/InstanceLock.h"
#include "process/Options.h"
#include "process/ServiceNotifier.h"
#include "process/StartupReporter.h"
#include "process/StopSignals.h"
#include "sentry/SentryLink.h"

namespace Agent {

/// The agent's process from start to end. Main thread only.
class AgentProcess {
  public:
    explicit AgentProcess(const Options& options);
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    /// Starts, blocks until a stop signal, and stops; returns the exit code of the process.
    int Run();

  private:
    int Caught(const std::function<int()>& step);
    int Check();
    int Prepare();
    int Start();
    bool LoadConfiguration(std::string& error) const;
    bool MakeDirectories(std::string& error) const;
    int TakeLock();
    bool StartLogging(std::string& error) const;
    bool StartEngine();
    bool StartControl(std::string& error);
    void StartMetrics();
    void AnswerModules();
    void StartNotifier();
    void StartSentry();
    bool CheckNotifications();
    bool ReapplyPolicies();
    void Stop();

    const Options options_;
    const std::string installation_path_;
    StopSignals signals_;
    StartupReporter startup_reporter_;
    InstanceLock lock_;
    std::unique_ptr<Framework::Engine> engine_;
    std::unique_ptr<EnginePolicyHost> policy_host_;
    std::unique_ptr<PolicyStore> policy_store_;
    std::unique_ptr<PolicyService> policies_;
    std::unique_ptr<StatusDocument> status_;
    std::unique_ptr<ReportReader> reports_;
    std::unique_ptr<BaselineRequests> baselines_;
    std::unique_ptr<Routes> routes_;
    std::unique_ptr<ControlServer> control_;
    std::unique_ptr<MetricsFile> metrics_;
    std::unique_ptr<PolicyInbox> inbox_;
    std::unique_ptr<Notifier> notifications_;
    std::unique_ptr<SentryLink> sentry_;
    std::unique_ptr<ServiceNotifier> notifier_;
};

/// The program: parses the command line and runs the agent; throws nothing.
int Main(int argc, const char* const* argv);

}  // namespace Agent
