#pragma once

#include <sdk/files/FileDescriptor.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "baseline/ManifestEntry.h"

namespace Baseline {

/// Reads the contents of regular files and the texts of links, on several threads. Never follows a
/// link nor waits for a pipe. The public methods are for one thread.
class ContentHasher {
  public:
    struct Job {
        std::shared_ptr<const SDK::FileDescriptor> directory;
        std::string name;
        std::uint64_t size = 0;  ///< no more than this is read
        std::size_t tag = 0;     ///< the caller's own
    };
    struct Result {
        std::size_t tag = 0;
        bool is_read = false;
        Digest digest{};
        Identity identity;  ///< of what was read
    };
    /// `done` is called on any of the threads, several at a time. `is_over` is asked often, on any
    /// thread; true ends the work. With one thread everything happens in Add.
    ContentHasher(unsigned int threads, std::function<void(const Result&)> done,
                  std::function<bool()> is_over);
    ~ContentHasher();
    ContentHasher(const ContentHasher&) = delete;
    ContentHasher& operator=(const ContentHasher&) = delete;

    /// Waits while too much is to be done.
    void Add(Job job);

    /// Returns when all is done.
    void Finish();

    /// Bytes read so far; any thread.
    std::uint64_t Bytes() const { return bytes_; }

  private:
    using Batch = std::vector<Job>;

    void Submit();
    void Work();
    void Hash(const Job& job);

    const std::function<void(const Result&)> done_;
    const std::function<bool()> is_over_;
    std::atomic<std::uint64_t> bytes_{0};
    Batch batch_;
    std::uint64_t batch_bytes_ = 0;
    std::mutex mutex_;  ///< guards the three below
    std::deque<Batch> waiting_;
    bool closed_ = false;
    std::condition_variable changed_;
    std::vector<std::thread> threads_;
};

/// The digest of a short text, such as a link's.
Digest DigestOf(const std::string& text);

/// The digest of the file or link `name`. False when it cannot be read. `is_over` as above.
bool DigestOf(int directory, const std::string& name, std::uint64_t size,
              const std::function<bool()>& is_over, ContentHasher::Result& result);

}  // namespace Baseline
