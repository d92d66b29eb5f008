#pragma once

#include <baseline/ManifestEntry.h>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Engine {

/// Objects of one protected path that differ from the approved state and are left as they are until
/// an operator decides. Paths are relative to the protected path, without a trailing "/". Bounded:
/// when the set is full, everything is held. A value; not thread-safe.
class HeldObjects {
  public:
    static constexpr std::size_t kCapacity = 1'000'000;

    explicit HeldObjects(std::size_t capacity = kCapacity) : capacity_(capacity) {}

    /// `with_content`: with all that lies or lay below it.
    void Add(const std::string& below, bool with_content);

    /// Takes out `below` and all below it; "" takes out all.
    void Remove(std::string_view below);

    bool Covers(std::string_view below) const;

    /// The object itself, or something below it, is held.
    bool HasAnyIn(std::string_view below) const;

    std::size_t Size() const { return objects_.size(); }
    bool IsEmpty() const { return objects_.empty() && !everything_; }
    bool HoldsEverything() const { return everything_; }

    /// The first `most`, in order.
    std::vector<std::string> Paths(std::size_t most) const;

  private:
    struct Order {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const {
            return Baseline::ComparePaths(a, b) < 0;
        }
    };

    std::size_t capacity_;
    bool everything_ = false;
    std::map<std::string, bool, Order> objects_;  ///< true: with content
};

}  // namespace Engine
