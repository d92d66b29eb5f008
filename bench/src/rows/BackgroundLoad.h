#pragma once

#include <string>
#include <vector>

namespace Bench {

/// Makes events with the files of a tree that have a suffix. Consecutive events are of different
/// files, since the kernel merges identical ones.
class BackgroundLoad {
  public:
    BackgroundLoad(const std::string& root, const std::string& suffix);
    ~BackgroundLoad();
    BackgroundLoad(const BackgroundLoad&) = delete;
    BackgroundLoad& operator=(const BackgroundLoad&) = delete;

    /// Writes a byte for each event.
    void Write(std::size_t events) const;

    /// Sets the mode to its present value for each event.
    void Touch(std::size_t events) const;

  private:
    std::vector<int> files_;
};

/// Makes `count` files with that suffix in the directories below `root`.
bool MakeLoadFiles(const std::string& root, const std::string& suffix, std::size_t count);

/// The queue limit of a new inotify descriptor.
std::size_t QueueCapacity();

}  // namespace Bench
