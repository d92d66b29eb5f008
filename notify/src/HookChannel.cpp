// Owns the paths for the next run of the hook. It must not decide when (Pacer does).
#include <sdk/files/PlaceTrust.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/text/Printable.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <utility>

#include "CommandWithInput.h"
#include "notify/Channel.h"

namespace Notify {

namespace {

constexpr long long kQuietMs = 1000;
constexpr long long kLongestMs = 10 * 1000;
constexpr std::size_t kMostReports = 10000;  ///< in one run
constexpr int kMsPerSecond = 1000;
constexpr std::size_t kMostOutput = 4096;

Poco::Logger* Log() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

bool IsUndone(const std::string& outcome) {
    return outcome.rfind("restored", 0) == 0 || outcome.rfind("removed", 0) == 0;
}

class HookChannel : public Channel {
  public:
    HookChannel(std::string file, int timeout_seconds)
        : file_(std::move(file)), timeout_ms_(timeout_seconds * kMsPerSecond) {}

    void Add(const Json::Value& report) override {
        const AlarmRecord alarm = ReadAlarm(report);
        const bool is_path = !alarm.path.empty() && alarm.path.find('\0') == std::string::npos;
        if (alarm.is_alarm && is_path && IsUndone(alarm.outcome)) paths_.insert(alarm.path);
    }

    std::string Deliver(const Delivery&) override { return paths_.empty() ? "" : Run(paths_); }

    void Clear() override { paths_.clear(); }

    std::string Test() override {
        struct stat info {};
        if (::lstat(file_.c_str(), &info) != 0) return file_ + " does not exist";
        return Run({});
    }

  private:
    /// Each time: the hook may be put there, or taken away, while the agent runs.
    std::string Run(const std::set<std::string>& paths) const {
        struct stat info {};
        if (::lstat(file_.c_str(), &info) != 0)
            return errno == ENOENT ? "" : Failed("is unreadable");
        if (!S_ISREG(info.st_mode)) return Failed("is not run: it is not a regular file");
        const std::string why = SDK::PlaceTrust::WhyWritable(file_);
        if (!why.empty()) return Failed("is not run: " + why);
        if (::access(file_.c_str(), X_OK) != 0) return Failed("is not run: it is not executable");
        std::string input;
        for (const std::string& path : paths) input += path + '\0';
        const CommandResult result = RunWithInput({file_}, input, timeout_ms_, kMostOutput);
        if (!result.output.empty()) {
            SDK_LOG(Log(), PRIO_INFORMATION, "%s says: %s", file_, SDK::Printable(result.output));
        }
        return result.error.empty() ? "" : Failed(result.error);
    }

    std::string Failed(const std::string& why) const { return file_ + " " + why; }

    const std::string file_;
    const int timeout_ms_;
    std::set<std::string> paths_;
};

}  // namespace

ChannelPlan PlanHook(const std::string& file, int timeout_seconds) {
    Pacing pacing;
    pacing.settle_ms = kQuietMs;
    pacing.longest_ms = kLongestMs;
    pacing.most = kMostReports;
    pacing.is_retried = false;
    return {
        "hook", file, pacing,
        [file, timeout_seconds] { return std::make_unique<HookChannel>(file, timeout_seconds); },
        [file] { return ::access(file.c_str(), F_OK) == 0; }};
}

}  // namespace Notify
