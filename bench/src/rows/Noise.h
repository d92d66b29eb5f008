#pragma once

#include <string>
#include <vector>

namespace Bench {

/// Open files of a tree whose names end in a suffix; each call makes one event, never two in a row
/// of the same file, which the kernel would merge. Closes them with the object.
class Noise {
  public:
    Noise(const std::string& root, const std::string& suffix);
    ~Noise();
    Noise(const Noise&) = delete;
    Noise& operator=(const Noise&) = delete;

    /// Writes a byte each: "modified".
    void Write(std::size_t events) const;

    /// Sets the mode that it has: "attributes changed", and nothing is.
    void Touch(std::size_t events) const;

  private:
    std::vector<int> files_;
};

/// `count` files with that suffix, spread over the directories below `root`.
bool MakeNoiseFiles(const std::string& root, const std::string& suffix, std::size_t count);

/// How many events the kernel keeps for an inotify descriptor that is made now.
std::size_t QueueCapacity();

}  // namespace Bench
