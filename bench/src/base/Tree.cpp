// Makes, changes and compares trees. Its only state is a counter that makes all changes differ.
#include "base/Tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "base/Process.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kTamperedBytes = 4096;
constexpr time_t kPast = 1577836800;  // 2020: differs from the time of every change
constexpr std::size_t kMaxSiblings = 100;

std::string RandomText(std::size_t bytes, unsigned seed) {
    std::string text(bytes, ' ');
    unsigned state = seed * 2654435761U + 88172645U;
    for (char& byte : text) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = state % 61 == 0 ? '\n' : static_cast<char>('a' + state % 26);
    }
    return text;
}

bool FillDirectory(const std::string& path, const TreeShape& shape, unsigned seed) {
    if (::mkdir(path.c_str(), 0755) != 0) return false;
    for (std::size_t i = 0; i < shape.files_each; ++i) {
        const std::string name = path + "/page" + std::to_string(i) + ".html";
        if (!MakeFile(name, shape.file_bytes, seed * 1000 + static_cast<unsigned>(i))) return false;
    }
    return true;
}

}  // namespace

bool MakeFile(const std::string& path, std::size_t bytes, unsigned seed) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool made = true;
    if (bytes > 0) {
        const std::string content = RandomText(bytes, seed);
        const timespec times[2] = {{kPast, 0}, {kPast + static_cast<time_t>(seed % 100000), 0}};
        made = ::write(fd, content.data(), bytes) == static_cast<ssize_t>(bytes) &&
               ::futimens(fd, times) == 0;
    }
    ::close(fd);
    return made;
}

bool MakeTree(const std::string& root, const TreeShape& shape) {
    std::error_code error;
    fs::create_directories(root, error);
    std::string parent;
    for (std::size_t i = 0; i < shape.directories; ++i) {
        const std::string path = i % kMaxSiblings == 0
                                     ? root + "/part" + std::to_string(i / kMaxSiblings)
                                     : parent + "/dir" + std::to_string(i);
        if (i % kMaxSiblings == 0) parent = path;
        if (!FillDirectory(path, shape, static_cast<unsigned>(i))) return false;
    }
    return !error;
}

std::vector<FileState> ScanTree(const std::string& root) {
    std::vector<FileState> files;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
        struct stat status {};
        if (::lstat(it->path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        files.push_back(
            {it->path().string().substr(root.size() + 1), status.st_size, status.st_mtim});
    }
    std::sort(files.begin(), files.end(),
              [](const FileState& a, const FileState& b) { return a.path < b.path; });
    return files;
}

bool CopyTree(const std::string& from, const std::string& to) {
    std::error_code error;
    fs::create_directories(to, error);
    return Run({{"/bin/cp", "-a", from + "/.", to}, {}, "", "", ""}) == 0;
}

void RemoveTree(const std::string& path) {
    Run({{"/bin/rm", "-rf", path}, {}, "", "", ""});
}

Clock::time_point Tamper(const std::string& path) {
    static std::atomic<unsigned> count{0};
    char mark[32];
    const int length = std::snprintf(mark, sizeof mark, "<!-- tampered %u -->\n", ++count);
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    std::string content(kTamperedBytes, 'x');
    const ssize_t had = fd < 0 ? 0 : ::pread(fd, content.data(), content.size(), 0);
    content.resize(had > 0 ? static_cast<std::size_t>(had) : 0);
    content.replace(0, std::min<std::size_t>(length, content.size()), mark,
                    std::min<std::size_t>(length, content.size()));
    const auto start = Clock::now();
    if (!content.empty() && ::pwrite(fd, content.data(), content.size(), 0) < 0) return start;
    if (fd >= 0) ::close(fd);
    return start;
}

bool IsRestored(const std::string& path, const FileState& file) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && status.st_size == file.size &&
           status.st_mtim.tv_sec == file.mtime.tv_sec &&
           status.st_mtim.tv_nsec == file.mtime.tv_nsec;
}

bool SameContent(const std::string& one, const std::string& other) {
    std::ifstream a(one, std::ios::binary);
    std::ifstream b(other, std::ios::binary);
    using It = std::istreambuf_iterator<char>;
    return a && b && std::equal(It(a), It(), It(b), It());
}

std::size_t Outstanding::Look() {
    const auto is_restored = [this](std::size_t i) {
        return IsRestored(root_ + "/" + (*files_)[i].path, (*files_)[i]);
    };
    while (!left_.empty() && is_restored(left_.front())) left_.pop_front();
    if (Clock::now() < sweep_at_) return left_.size();
    left_.erase(std::remove_if(left_.begin(), left_.end(), is_restored), left_.end());
    sweep_at_ = Clock::now() + kSweepEvery;
    return left_.size();
}

std::size_t Outstanding::Wait(milliseconds deadline, microseconds step) {
    WaitUntil(deadline, step, [&] { return Look() == 0; });
    return left_.size();
}

}  // namespace Bench
