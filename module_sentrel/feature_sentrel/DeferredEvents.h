#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

/// A change that could not be judged yet.
struct DeferredEvent {
    std::string watch_id;
    std::string path;
    std::uint32_t raw_mask = 0;
    std::chrono::steady_clock::time_point read_time{};
};

/// The changes that wait for a complete backup copy to be compared with: one for each path, in the
/// order of their arrival, at most kCapacity. One thread.
class DeferredEvents {
  public:
    static constexpr std::size_t kCapacity = 4096;

    /// Keeps the event; one for the same path is brought up to date. A move is kept as what it is
    /// at its one end, an arrival or a loss. False when there is no room: the event is lost.
    bool Keep(DeferredEvent event);

    /// Takes out the oldest `limit` events of the watches that are `ready`.
    std::vector<DeferredEvent> Take(std::size_t limit,
                                    const std::function<bool(const std::string&)>& ready);

    std::size_t Size() const { return events_.size(); }
    void Clear();

  private:
    using Key = std::pair<std::string, std::string>;  // watch id, path

    std::list<DeferredEvent> events_;
    std::map<Key, std::list<DeferredEvent>::iterator> by_path_;
};

}  // namespace Engine
