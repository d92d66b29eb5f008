// Owns log/alarms.jsonl and its rotated files. Must not decide what an alarm is (ReportTask.cpp) or
// how its line looks (AlarmLine.cpp). Runs on the senders' threads, one at a time under mutex_.

#include "alarm_log/AlarmLog.h"

#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "alarm_log/AlarmLine.h"
#include "store/ReportLog.h"

namespace Engine {
namespace {

constexpr mode_t kMode = 0640;
constexpr mode_t kDirectoryMode = 0750;

std::string ErrnoText() {
    return std::strerror(errno);
}

}  // namespace

AlarmLog::AlarmLog(std::string path, std::int64_t rotate_bytes, int keep_files)
    : path_(std::move(path)), rotate_bytes_(rotate_bytes), keep_files_(keep_files) {}

bool AlarmLog::Append(const std::string& body) {
    return AppendEnded(AlarmLine(body));
}

bool AlarmLog::AppendLine(const std::string& body) {
    return AppendEnded(body + "\n");
}

bool AlarmLog::AppendEnded(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string error;
    if (Write(line, error)) {
        const std::uint64_t failures = throttle_.Recovered();
        if (failures > 0) {
            SDK_LOG(ReportLog(), PRIO_NOTICE, "%s is written again; %?u alarms are missing in it",
                    path_, failures);
        }
        return true;
    }
    ++failed_;
    if (throttle_.Failed()) {
        SDK_LOG(ReportLog(), PRIO_ERROR, "cannot write %s: %s (%?u failures so far)", path_, error,
                throttle_.Failures());
    }
    return false;
}

std::uint64_t AlarmLog::FailedLines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return failed_;
}

bool AlarmLog::Write(const std::string& line, std::string& error) {
    const auto length = static_cast<std::int64_t>(line.size());
    if (!IsStillThere() && !Open(error)) return false;
    if (size_ > 0 && size_ + length > rotate_bytes_) {
        Rotate();
        if (!Open(error)) return false;
    }
    const ssize_t written = ::write(file_.Get(), line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) {
        size_ += length;
        return true;
    }
    error = written < 0 ? ErrnoText() : "written in part, the disk may be full";
    if (written > 0 && ::ftruncate(file_.Get(), size_) != 0) file_.Reset();
    return false;
}

bool AlarmLog::IsStillThere() const {
    return file_.IsOpen() && IdentifyFile(path_) == identity_;
}

bool AlarmLog::Open(std::string& error) {
    SDK::DirUtils::MakeDirs(SDK::PathUtils::GetDirFromPath(path_), kDirectoryMode);
    const int flags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    file_.Reset(::open(path_.c_str(), flags, kMode));
    struct stat status {};
    if (!file_.IsOpen() || ::fstat(file_.Get(), &status) != 0) {
        error = ErrnoText();
        file_.Reset();
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "it is not a regular file";
        file_.Reset();
        return false;
    }
    if ((status.st_mode & 07777) != kMode) ::fchmod(file_.Get(), kMode);
    identity_ = {status.st_dev, status.st_ino};
    size_ = status.st_size;
    DropTornLine();
    return true;
}

void AlarmLog::DropTornLine() {
    std::array<char, 4096> block{};
    for (std::int64_t end = size_; end > 0;) {
        const std::int64_t begin = std::max<std::int64_t>(end - std::int64_t{block.size()}, 0);
        const auto wanted = static_cast<std::size_t>(end - begin);
        if (::pread(file_.Get(), block.data(), wanted, begin) != static_cast<ssize_t>(wanted))
            return;
        const void* const found = ::memrchr(block.data(), '\n', wanted);
        const std::int64_t keep =
            found == nullptr ? begin : begin + (static_cast<const char*>(found) - block.data()) + 1;
        if (found != nullptr || begin == 0) {
            if (keep < size_ && ::ftruncate(file_.Get(), keep) == 0) size_ = keep;
            return;
        }
        end = begin;
    }
}

void AlarmLog::Rotate() {
    for (int number = keep_files_ - 1; number >= 1; --number) {
        std::rename((path_ + "." + std::to_string(number)).c_str(),
                    (path_ + "." + std::to_string(number + 1)).c_str());
    }
    if (std::rename(path_.c_str(), (path_ + ".1").c_str()) == 0) {
        rotate_throttle_.Recovered();
    } else if (rotate_throttle_.Failed()) {
        SDK_LOG(ReportLog(), PRIO_WARNING, "cannot rotate %s: %s", path_, ErrnoText());
    }
}

}  // namespace Engine
