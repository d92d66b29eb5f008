#include "rows/BackgroundLoad.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "base/Tree.h"

namespace Bench {

BackgroundLoad::BackgroundLoad(const std::string& root, const std::string& suffix) {
    for (const FileState& file : ScanTree(root)) {
        if (file.path.size() < suffix.size() ||
            file.path.compare(file.path.size() - suffix.size(), suffix.size(), suffix) != 0) {
            continue;
        }
        const int fd = ::open((root + "/" + file.path).c_str(), O_WRONLY | O_CLOEXEC);
        if (fd >= 0) files_.push_back(fd);
    }
}

BackgroundLoad::~BackgroundLoad() {
    for (const int fd : files_) ::close(fd);
}

void BackgroundLoad::Write(std::size_t events) const {
    for (std::size_t i = 0; i < events; ++i) {
        if (::pwrite(files_[i % files_.size()], "x", 1, 0) < 0) return;
    }
}

void BackgroundLoad::Touch(std::size_t events) const {
    for (std::size_t i = 0; i < events; ++i) {
        if (::fchmod(files_[i % files_.size()], 0644) != 0) return;
    }
}

bool MakeLoadFiles(const std::string& root, const std::string& suffix, std::size_t count) {
    namespace fs = std::filesystem;
    std::vector<std::string> folders;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_directory()) folders.push_back(entry.path().string());
    }
    for (std::size_t i = 0; i < count && !folders.empty(); ++i) {
        const std::string name =
            folders[i % folders.size()] + "/noise" + std::to_string(i) + suffix;
        if (!MakeFile(name, 64, static_cast<unsigned>(i))) return false;
    }
    return !folders.empty();
}

std::size_t QueueCapacity() {
    std::size_t capacity = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> capacity;
    return capacity;
}

}  // namespace Bench
