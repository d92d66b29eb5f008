#pragma once

#include <sys/resource.h>

#include <csignal>

namespace test {

/// During its lifetime no file of this process can grow beyond `bytes`: as on a full disk, writes
/// fail or are partial. Also limits root.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &old_limit_);
        const rlimit limit{bytes, old_limit_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_limit_);
        std::signal(SIGXFSZ, old_handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    rlimit old_limit_{};
    void (*old_handler_)(int) = nullptr;
};

}  // namespace test
