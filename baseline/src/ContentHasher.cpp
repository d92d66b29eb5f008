// Owns the threads that read contents. It must not know what the contents should be.
#include "baseline/ContentHasher.h"

#include <fcntl.h>
#include <sdk/files/Sha256.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>

namespace Baseline {

namespace {

// Each file of a batch may hold a directory open.
constexpr std::size_t kBatchFiles = 32;
constexpr std::uint64_t kBatchBytes = 4'194'304;
constexpr std::size_t kMostWaiting = 4;  // batches
constexpr std::size_t kChunk = 131'072;

bool HashLink(int directory, const std::string& name, Digest& digest) {
    std::array<char, PATH_MAX> text{};
    const ssize_t length = ::readlinkat(directory, name.c_str(), text.data(), text.size());
    if (length < 0) return false;
    digest = DigestOf(std::string(text.data(), static_cast<std::size_t>(length)));
    return true;
}

SDK::FileDescriptor OpenFile(int directory, const std::string& name) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    SDK::FileDescriptor file(::openat(directory, name.c_str(), kFlags | O_NOATIME));
    if (!file.IsOpen() && errno == EPERM) file.Reset(::openat(directory, name.c_str(), kFlags));
    return file;
}

/// Hashes at most `size` bytes and one more, which would make the digest another.
bool HashFile(int file, std::uint64_t size, const std::function<bool()>& is_over, Digest& digest) {
    thread_local std::array<char, kChunk> buffer;
    thread_local SDK::Sha256 hash;
    hash.Restart();
    for (std::uint64_t left = size + 1; left > 0;) {
        if (is_over()) return false;
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, buffer.size()));
        const ssize_t got = ::read(file, buffer.data(), wanted);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        hash.Update(buffer.data(), static_cast<std::size_t>(got));
        left -= static_cast<std::uint64_t>(got);
    }
    return hash.Finish(digest);
}

}  // namespace

Digest DigestOf(const std::string& text) {
    Digest digest{};
    SDK::Sha256 hash;
    hash.Update(text.data(), text.size());
    hash.Finish(digest);
    return digest;
}

bool DigestOf(int directory, const std::string& name, std::uint64_t size,
              const std::function<bool()>& is_over, ContentHasher::Result& result) {
    struct stat info {};
    const SDK::FileDescriptor file = OpenFile(directory, name);
    if (!file.IsOpen()) {
        // ELOOP: a link.
        if (errno != ELOOP || !HashLink(directory, name, result.digest)) return false;
        if (::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
        result.identity = Identity::Of(info);
        return S_ISLNK(info.st_mode);
    }
    if (::fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    if (!HashFile(file.Get(), size, is_over, result.digest)) return false;
    result.identity = Identity::Of(info);
    // What is written while it is read has no digest.
    return ::fstat(file.Get(), &info) == 0 && result.identity == Identity::Of(info);
}

ContentHasher::ContentHasher(unsigned int threads, std::function<void(const Result&)> done,
                             std::function<bool()> is_over)
    : done_(std::move(done)), is_over_(std::move(is_over)) {
    if (threads < 2) return;
    for (unsigned int i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
}

ContentHasher::~ContentHasher() {
    Finish();
}

void ContentHasher::Add(Job job) {
    if (threads_.empty()) return Hash(job);
    batch_bytes_ += job.size;
    batch_.push_back(std::move(job));
    if (batch_.size() >= kBatchFiles || batch_bytes_ >= kBatchBytes) Submit();
}

void ContentHasher::Submit() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.size() < kMostWaiting; });
    waiting_.push_back(std::exchange(batch_, {}));
    batch_bytes_ = 0;
    changed_.notify_all();
}

void ContentHasher::Finish() {
    if (threads_.empty()) return;
    if (!batch_.empty()) Submit();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        changed_.notify_all();
    }
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
}

void ContentHasher::Work() {
    for (;;) {
        Batch batch;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return closed_ || !waiting_.empty(); });
            if (waiting_.empty()) return;
            batch = std::move(waiting_.front());
            waiting_.pop_front();
            changed_.notify_all();
        }
        for (const Job& job : batch) Hash(job);
    }
}

void ContentHasher::Hash(const Job& job) {
    if (is_over_()) return;
    Result result;
    result.tag = job.tag;
    result.is_read = DigestOf(job.directory->Get(), job.name, job.size, is_over_, result);
    if (is_over_()) return;
    bytes_ += job.size;
    done_(result);
}

}  // namespace Baseline
