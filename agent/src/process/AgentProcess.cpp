// Owns the agent's parts and the order in which they start and stop. Must not do their work
// (framework, policy and control do). Runs on the main thread.
#include "process/AgentProcess.h"

#include <Poco/Environment.h>
#include <framework/ConfigManager.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/host/InnerCpuCtrlUtils.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <future>
#include <iostream>

#include "common/ControlProtocol.h"
#include "common/PrometheusText.h"
#include "process/ExitCodes.h"

namespace Agent {

using Framework::ConfigManager;

namespace {

constexpr mode_t kUmask = 077;
constexpr int kMaxWaitingReaders = 12;
constexpr int kMaxSlowRequests = 12;
constexpr std::chrono::minutes kStuckAfter{2};
constexpr const char* kStatusQuery = "agent.status";

Poco::Logger* Log() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

/// Makes an eventfd readable at its destruction.
class EventAtEnd {
  public:
    explicit EventAtEnd(int descriptor) : descriptor_(descriptor) {}
    ~EventAtEnd() { ::eventfd_write(descriptor_, 1); }
    EventAtEnd(const EventAtEnd&) = delete;
    EventAtEnd& operator=(const EventAtEnd&) = delete;

  private:
    const int descriptor_;
};

void PrintVerdict(const std::string& feature, const PolicyVerdict& verdict) {
    const auto print = [&feature](const char* title, const Json::Value& messages) {
        for (const Json::Value& message : messages) {
            const std::string pointer = message["pointer"].asString();
            std::cerr << title << ": " << feature << ": " << pointer
                      << (pointer.empty() ? "" : ": ") << message["message"].asString() << "\n";
        }
    };
    print("warning", verdict.warnings);
    print("error", verdict.errors);
    std::cout << feature << (verdict.errors.empty() ? ": no errors" : ": has errors") << std::endl;
}

}  // namespace

AgentProcess::AgentProcess(const Options& options)
    : options_(options), installation_path_(SDK::PathUtils::GetInstallationPath()) {}

AgentProcess::~AgentProcess() {
    Stop();
}

int AgentProcess::Run() {
    ::umask(kUmask);
    if (options_.check) return Check();
    if (options_.daemon) startup_reporter_.Daemonize();
    const int failed = Caught([this] { return Start(); });
    if (failed != kExitOk) {
        Stop();
        return failed;
    }
    const int signal = signals_.Wait();
    SDK_LOG(Log(), PRIO_NOTICE, "stopping on signal %d", signal);
    Stop();
    return kExitOk;
}

/// Starts the modules, which know what a good policy is, but applies nothing.
int AgentProcess::Check() {
    const int failed = Caught([this] { return Prepare(); });
    if (failed != kExitOk) return failed;
    SDK_LOG(Log(), PRIO_NOTICE, "morvane_agent %s checks the kept policies and ends",
            std::string(SENTREL_VERSION));
    bool is_good = StartEngine();
    is_good = CheckNotifications() && is_good;
    for (const auto& [feature, verdict] : policies_->CheckStored()) {
        is_good = is_good && verdict.errors.empty();
        PrintVerdict(feature, verdict);
    }
    Stop();
    return is_good ? kExitOk : kExitFailed;
}

int AgentProcess::Caught(const std::function<int()>& step) {
    try {
        return step();
    } catch (const Poco::Exception& e) {
        return startup_reporter_.Failed(kExitFailed, e.displayText());
    } catch (const std::exception& e) {
        return startup_reporter_.Failed(kExitFailed, e.what());
    }
}

/// Everything before the modules.
int AgentProcess::Prepare() {
    std::string error;
    if (!LoadConfiguration(error) || !MakeDirectories(error)) {
        return startup_reporter_.Failed(kExitFailed, error);
    }
    if (const int refused = TakeLock(); refused != kExitOk) return refused;
    if (!StartLogging(error) || !ConfigManager::GetInstance().EnsureAgentId(error)) {
        return startup_reporter_.Failed(kExitFailed, error);
    }
    return kExitOk;
}

int AgentProcess::Start() {
    if (const int failed = Prepare(); failed != kExitOk) return failed;
    SDK_LOG(Log(), PRIO_NOTICE, "morvane_agent %s starts in %s, process %d",
            std::string(SENTREL_VERSION), installation_path_, static_cast<int>(::getpid()));
    if (::geteuid() != 0) {
        const std::string warning =
            "not running as root: files that other users own can be neither read nor restored";
        startup_reporter_.Warn(warning);
        SDK_LOG(Log(), PRIO_WARNING, "%s", warning);
    }
    StartEngine();
    std::string error;
    if (!StartControl(error)) return startup_reporter_.Failed(kExitFailed, error);
    StartMetrics();
    StartNotifier();
    StartSentry();
    if (!ReapplyPolicies()) return kExitOk;
    AnswerModules();
    notifier_ =
        std::make_unique<ServiceNotifier>([this] { return engine_->FindStuckThread(kStuckAfter); });
    notifier_->Ready();
    startup_reporter_.Ready("morvane_agent runs, process " + std::to_string(::getpid()) + ", " +
                            DefaultSocketPath());
    return kExitOk;
}

bool AgentProcess::LoadConfiguration(std::string& error) const {
    const bool named = !options_.config_file.empty();
    const std::string file = named ? options_.config_file : installation_path_ + "conf/agent.json";
    std::string problem;
    if (ConfigManager::GetInstance().Load(file, named, problem)) return true;
    error = "configuration " + file + ": " + problem;
    return false;
}

bool AgentProcess::MakeDirectories(std::string& error) const {
    const std::string& log = ConfigManager::GetInstance().GetLoggerConfig().directory;
    for (const std::string& path : {installation_path_ + "data", installation_path_ + "run", log}) {
        if (SDK::DirUtils::MakeDirs(path, 0700) != 0) {
            error = "cannot make the directory " + path + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

int AgentProcess::TakeLock() {
    int holder = 0;
    std::string error;
    switch (lock_.Take(installation_path_ + "run/agent.lock", holder, error)) {
        case InstanceLock::Result::kTaken:
            return kExitOk;
        case InstanceLock::Result::kFailed:
            return startup_reporter_.Failed(kExitFailed, "cannot take the lock file " + error);
        case InstanceLock::Result::kHeldByOther:
            break;
    }
    const std::string process =
        holder > 0 ? "process " + std::to_string(holder) : "a process that is just starting";
    return startup_reporter_.Failed(
        kExitAlreadyRunning, "another agent runs on the installation path " + installation_path_ +
                                 " already: " + process + ". Stop that one first.");
}

bool AgentProcess::StartLogging(std::string& error) const {
    const Framework::LoggerConfig& config = ConfigManager::GetInstance().GetLoggerConfig();
    SDK::LoggerUtils::Settings settings;
    settings.directory = config.directory;
    settings.level = config.level;
    settings.rotate_bytes = static_cast<std::size_t>(config.rotate_bytes);
    settings.keep_files = config.keep_files;
    settings.console = config.console;
    std::string problem;
    if (SDK::LoggerUtils::GetInstance()->Configure(settings, problem)) return true;
    error = "cannot log to " + settings.directory + ": " + problem;
    return false;
}

/// False when a module is not used; the agent runs nevertheless.
bool AgentProcess::StartEngine() {
    const ConfigManager& config = ConfigManager::GetInstance();
    SDK::InnerCpuCtrlUtils::SetLimitPercent(config.CpuLimitPercent());
    engine_ = std::make_unique<Framework::Engine>();
    engine_->Start();
    policy_host_ = std::make_unique<EnginePolicyHost>(*engine_);
    policy_store_ = std::make_unique<PolicyStore>(installation_path_ + "data/policies");
    policies_ = std::make_unique<PolicyService>(*policy_host_, *policy_store_);
    status_ = std::make_unique<StatusDocument>(*engine_, *policies_);
    std::vector<FailedModule> failed;
    for (const std::string& name : config.Modules()) {
        std::string error;
        if (engine_->LoadModule(name, error)) continue;
        SDK_LOG(Log(), PRIO_ERROR, "module %s is not used: %s", name, error);
        startup_reporter_.Warn("module " + name + " is not used: " + error);
        failed.push_back({name, error});
    }
    status_->SetFailedModules(failed);
    return failed.empty();
}

bool AgentProcess::StartControl(std::string& error) {
    reports_ = std::make_unique<ReportReader>(engine_->Queries(), kMaxWaitingReaders);
    baselines_ = std::make_unique<BaselineRequests>(engine_->Queries());
    routes_ = std::make_unique<Routes>(
        *policies_, *reports_, *baselines_,
        [this](const std::string& id, const std::string& text) {
            return engine_->InvokeTasklet(id, text);
        },
        [this] { return status_->Build(); }, kMaxSlowRequests);
    control_ = std::make_unique<ControlServer>(*routes_);
    return control_->Start(DefaultSocketPath(), error);
}

void AgentProcess::StartMetrics() {
    std::string error;
    const MetricsSettings settings =
        MetricsSettings::Read(ConfigManager::GetInstance().Section("metrics"), error);
    if (!error.empty()) {
        startup_reporter_.Warn("conf/agent.json: " + error + "; no metrics are written");
        SDK_LOG(Log(), PRIO_WARNING, "conf/agent.json: %s; no metrics are written", error);
    }
    if (settings.file.empty()) return;
    metrics_ =
        std::make_unique<MetricsFile>(settings, [this] { return FormatMetrics(status_->Build()); });
}

/// What modules may ask of the agent. Not before the kept policies are in force.
void AgentProcess::AnswerModules() {
    engine_->Queries().Register(kStatusQuery, [this](const auto&) { return status_->Build(); });
    inbox_ = std::make_unique<PolicyInbox>(*policies_, engine_->Queries());
}

void AgentProcess::StartNotifier() {
    const ConfigManager& config = ConfigManager::GetInstance();
    std::vector<Notify::SettingsFault> faults;
    const Notify::Settings settings = Notify::ReadSettings(config.Section("notify"), faults);
    for (const Notify::SettingsFault& fault : faults) {
        startup_reporter_.Warn("conf/agent.json: " + fault.text);
        SDK_LOG(Log(), PRIO_ERROR, "conf/agent.json: %s", fault.text);
    }
    const Notify::Origin origin{Poco::Environment::nodeName(), config.GetAgentId(),
                                SENTREL_VERSION};
    notifications_ = std::make_unique<Notifier>(
        engine_->Queries(), settings, faults, origin, installation_path_ + "data/notify",
        installation_path_ + "conf/hooks/after-restore", [this] { return status_->Build(); });
}

void AgentProcess::StartSentry() {
    std::string fault;
    const SentrySettings settings =
        SentrySettings::Read(ConfigManager::GetInstance().Section("sentry"), fault);
    if (!fault.empty()) {
        startup_reporter_.Warn("conf/agent.json: " + fault + "; the sentry is off");
        SDK_LOG(Log(), PRIO_ERROR, "conf/agent.json: %s; the sentry is off", fault);
    }
    sentry_ = std::make_unique<SentryLink>(engine_->Queries(), settings, fault);
}

/// False with messages when the section "notify" has faults.
bool AgentProcess::CheckNotifications() {
    std::vector<Notify::SettingsFault> faults;
    Notify::ReadSettings(ConfigManager::GetInstance().Section("notify"), faults);
    for (const Notify::SettingsFault& fault : faults) {
        std::cerr << "error: conf/agent.json: " << fault.text << std::endl;
    }
    return faults.empty();
}

/// Runs on its own thread, since a policy may take long and signals must be noticed meanwhile.
/// False when a signal arrived; the remaining policies are left out.
bool AgentProcess::ReapplyPolicies() {
    const SDK::FileDescriptor ended(::eventfd(0, EFD_CLOEXEC));
    auto reapplied = std::async(std::launch::async, [&] {
        const EventAtEnd at_end{ended.Get()};
        policies_->ReapplyStored();
    });
    const bool must_stop = signals_.ArriveBefore(ended.Get());
    if (must_stop) {
        policies_->StopReapplying();
        engine_->BeginStop();
    }
    reapplied.get();
    return !must_stop;
}

void AgentProcess::Stop() {
    if (notifier_) notifier_->Stopping();
    metrics_.reset();
    sentry_.reset();
    notifications_.reset();
    if (engine_) engine_->BeginStop();  // control requests may be waiting for policies
    if (reports_) reports_->Stop();
    if (control_) control_->Stop();
    if (!engine_) return;
    engine_->Queries().Unregister(kStatusQuery);
    inbox_.reset();
    engine_->Stop();
    SDK_LOG(Log(), PRIO_NOTICE, "stopped");
    notifier_.reset();
    control_.reset();
    routes_.reset();
    baselines_.reset();
    reports_.reset();
    status_.reset();
    policies_.reset();
    engine_.reset();
    SDK::LoggerUtils::GetInstance()->Shutdown();
}

int Main(int argc, const char* const* argv) {
    try {
        int exit_code = kExitOk;
        const std::optional<Options> options = ParseOptions(argc, argv, exit_code);
        return options ? AgentProcess(*options).Run() : exit_code;
    } catch (const Poco::Exception& e) {
        std::cerr << "morvane_agent: " << e.displayText() << std::endl;
    } catch (const std::exception& e) {
        std::cerr << "morvane_agent: " << e.what() << std::endl;
    }
    return kExitFailed;
}

}  // namespace Agent
