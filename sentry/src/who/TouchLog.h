#pragma once

#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "who/process/Process.h"

namespace Sentry {

/// One process that changed an object, once or several times.
struct Touch {
    ProcessPtr process;  ///< null: unknown, but for its number
    pid_t pid = 0;
    Nanoseconds first = 0;
    Nanoseconds last = 0;
    bool is_exact = false;
    const char* why = "";  ///< why not exact
};

/// Which process changed which object in the last minute. Bounded: the objects whose last change is
/// oldest are forgotten first. Not thread-safe.
class TouchLog {
  public:
    static constexpr std::size_t kMostObjects = 16384;
    static constexpr std::size_t kMostTouches = 8;  ///< of one object
    static constexpr Nanoseconds kKept = 60 * kSecond;

    void Add(const std::string& path, const Touch& touch);

    /// The touches of an object, the latest last.
    const std::vector<Touch>& Of(const std::string& path) const;

    void Expire(Nanoseconds now);
    void Clear();

  private:
    struct Object {
        std::vector<Touch> touches;
        std::list<std::string>::iterator place;
    };

    void Drop();

    std::unordered_map<std::string, Object> objects_;
    std::list<std::string> order_;  ///< the last changed at the end
};

}  // namespace Sentry
