#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "feature_sentrel/event_path/FileChange.h"

namespace Engine {

/// The changes that wait for a complete backup copy: one for each path, in the order of their
/// arrival for each watch, at most `capacity`. A change takes about 150 bytes and its path. Not
/// thread-safe.
class PendingEvents {
  public:
    static constexpr std::size_t kCapacity = 65536;

    explicit PendingEvents(std::size_t capacity = kCapacity) : capacity_(capacity) {}

    /// Keeps the change, merged with a kept one of the same path. A move is kept as what it is for
    /// the one path, an arrival or a loss. False when there is no room.
    bool Keep(const FileChange& event);

    /// Takes out the oldest changes of the watches that are `ready`, at most `limit`.
    std::vector<FileChange> Take(std::size_t limit,
                                 const std::function<bool(const std::string&)>& ready);

    std::size_t Size() const { return size_; }
    void Clear();

  private:
    struct Waiting {
        std::string path;
        std::uint32_t raw_mask = 0;
        std::chrono::steady_clock::time_point read_time{};
    };
    struct OfWatch {
        std::list<Waiting> events;
        std::unordered_map<std::string_view, std::list<Waiting>::iterator> by_path;
    };

    const std::size_t capacity_;
    std::map<std::string, OfWatch> watches_;
    std::size_t size_ = 0;
};

}  // namespace Engine
