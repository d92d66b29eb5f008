// Runs one comparison of contents. It must not judge whether a file differs (BackupComparer does)
// nor decide when the alarm is sent (AlarmReporter does). Worker's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include "feature_sentrel/alarms/ContentDiff.h"

#include <sdk/commands/RunningCommand.h>
#include <sdk/files/FileUtils.h>
#include <sdk/log/Log.h>
#include <sys/stat.h>

#include <utility>

#include "base/ModuleLogger.h"

namespace Engine {

namespace {

constexpr std::size_t kMaxDiff = 1024;
constexpr int kDiffTimeoutMs = 5000;
// diff reads both files into memory; pages are far smaller.
constexpr off_t kLargestCompared = 64L * 1024 * 1024;
constexpr std::size_t kMostMemory = 256UL * 1024 * 1024;
constexpr int kTrouble = 2;

/// True for a regular file, also for a pinned one, whose path is a link of /proc.
bool IsHeldFile(const std::string& path, struct stat& info) {
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

ContentDiff::ContentDiff(std::string copy, std::string changed)
    : copy_(std::move(copy)), changed_(std::move(changed)) {}

std::string ContentDiff::Take() {
    struct stat changed {};
    struct stat copy {};
    if (!IsHeldFile(changed_, changed) || SDK::FileUtils::IsFileElf(changed_)) return "";
    if (::lstat(copy_.c_str(), &copy) == 0 && S_ISREG(copy.st_mode)) {
        left_out_ = changed.st_size > kLargestCompared || copy.st_size > kLargestCompared;
        return left_out_ ? "" : Compare();
    }
    std::string text;
    const int result = SDK::FileUtils::ReadFile(changed_, text, kMaxDiff);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "read(%s) -> [%d] [%?d]", changed_, result, text.size());
    return text;
}

std::string ContentDiff::Compare() {
    SDK::RunningCommand diff({"/usr/bin/diff", "-bBi", changed_, copy_}, kDiffTimeoutMs,
                             {kMostMemory});
    std::string text;
    int exit_code = 0;
    const int result = diff.Wait(exit_code, text, kMaxDiff);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "diff(%s, %s) -> [%d] [%d] [%?d]", changed_, copy_, result,
            exit_code, text.size());
    left_out_ = result != 0 || (exit_code >= kTrouble && text.rfind("Binary", 0) != 0);
    return text;
}

}  // namespace Engine
