// Owns one comparison of contents. It must not judge whether a file differs (SentrelCompare.cpp
// does) nor decide when that is told. Inotify task's thread.
#include <ContentDiff.h>
#include <SentrelUtils.h>
#include <sdk/FileUtils.h>
#include <sdk/Log.h>
#include <sys/stat.h>

namespace Engine {

namespace {

constexpr std::size_t kMaxDiff = 1024;
constexpr int kDiffTimeoutMs = 5000;

/// A regular file; also one that only evidence keeps hold of, whose path looks like a link.
bool IsHeldFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

ContentDiff::ContentDiff(const std::string& backup, const std::string& changed)
    : backup_(backup), changed_(changed) {
    if (!IsHeldFile(changed) || SDK::FileUtils::IsFileElf(changed)) return;
    if (SDK::FileUtils::IsFile(backup)) {
        const std::vector<std::string> words = {"/usr/bin/diff", "-bBi", changed, backup};
        command_ = std::make_unique<SDK::RunningCommand>(words, kDiffTimeoutMs);
        return;
    }
    const int result = SDK::FileUtils::ReadFile(changed, text_, kMaxDiff);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "read(%s) -> [%d] [%?d]", changed, result, text_.size());
}

std::string ContentDiff::Take() {
    if (!command_) return text_;
    int exit_code = 0;
    const int result = command_->Wait(exit_code, text_, kMaxDiff);
    command_.reset();
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "diff(%s, %s) -> [%d] [%d] [%?d]", changed_, backup_,
            result, exit_code, text_.size());
    return text_;
}

}  // namespace Engine
