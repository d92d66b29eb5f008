// Owns the thread that writes the metrics and the file. It must not know their names.
#include "control/status/MetricsFile.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/WriteAll.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Agent {

namespace {

constexpr mode_t kReadableForAll = 0644;
constexpr int kLeastSeconds = 1;
constexpr int kMostSeconds = 3600;
constexpr char kSuffix[] = ".prom";
/// The collector reads only names that end in kSuffix.
constexpr char kTemporary[] = ".morvane-metrics.tmp";

}  // namespace

MetricsSettings MetricsSettings::Read(const Json::Value& section, std::string& error) {
    MetricsSettings settings;
    error.clear();
    for (const std::string& name : section.getMemberNames()) {
        if (name != "file" && name != "period_seconds") error = "/metrics/" + name + ": unknown";
    }
    const Json::Value& file = section["file"];
    const Json::Value& period = section["period_seconds"];
    if (!file.isNull()) {
        const bool fits = file.isString() && !file.asString().empty() &&
                          file.asString().front() == '/' &&
                          SDK::StrUtils::EndsWith(file.asString(), kSuffix);
        if (!fits) error = "/metrics/file: must be an absolute path that ends in \".prom\"";
        if (fits) settings.file = file.asString();
    }
    if (!period.isNull()) {
        const bool fits =
            period.isInt() && period.asInt() >= kLeastSeconds && period.asInt() <= kMostSeconds;
        if (!fits) error = "/metrics/period_seconds: must be a number from 1 to 3600";
        if (fits) settings.period = std::chrono::seconds(period.asInt());
    }
    if (!error.empty()) settings.file.clear();
    return settings;
}

int WriteMetricsFile(const std::string& file, const std::string& content) {
    const std::string folder = SDK::PathUtils::GetDirFromPath(file);
    const std::string name = file.substr(file.rfind('/') + 1);
    const SDK::FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen()) return errno;
    // Others may write to the folder: what stands under the temporary name is not ours.
    ::unlinkat(directory.Get(), kTemporary, 0);
    const SDK::FileDescriptor written(::openat(directory.Get(), kTemporary,
                                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                               kReadableForAll));
    if (!written.IsOpen()) return errno;
    const bool is_done =
        ::fchmod(written.Get(), kReadableForAll) == 0 &&
        SDK::WriteAll(written.Get(), content.data(), content.size()) == 0 &&
        ::renameat(directory.Get(), kTemporary, directory.Get(), name.c_str()) == 0;
    if (is_done) return 0;
    const int error = errno;
    ::unlinkat(directory.Get(), kTemporary, 0);
    return error;
}

MetricsFile::MetricsFile(const MetricsSettings& settings, Content content)
    : settings_(settings), content_(std::move(content)), thread_([this] { Work(); }) {}

MetricsFile::~MetricsFile() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_stopping_ = true;
    }
    stop_.notify_all();
    thread_.join();
    ::unlink(settings_.file.c_str());
}

void MetricsFile::Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_stopping_) {
        lock.unlock();
        WriteOnce();
        lock.lock();
        stop_.wait_for(lock, settings_.period, [this] { return is_stopping_; });
    }
}

void MetricsFile::WriteOnce() {
    int error = 0;
    try {
        error = WriteMetricsFile(settings_.file, content_());
    } catch (const std::exception& e) {
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_ERROR, "metrics: %s",
                std::string(e.what()));
    }
    if (error != 0 && error != last_error_) {
        SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), PRIO_ERROR,
                "cannot write the metrics to %s: %s", settings_.file,
                std::string(std::strerror(error)));
    }
    last_error_ = error;
}

}  // namespace Agent
