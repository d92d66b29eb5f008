#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Engine {

/// The objects of one protected path that could not be copied in this round. They are neither
/// deleted nor restored; everything else of the path is protected.
///
/// An open object stands for all below it. The set is bounded in entries and bytes: when it is
/// full, the entries of a directory collapse into one for the directory; in it, only names without
/// a copy are open then. Paths are relative to the protected path, without a trailing "/". A value;
/// not thread-safe.
class OpenObjects {
  public:
    static constexpr std::size_t kCapacity = 16'384;
    static constexpr std::size_t kMostBytes = 8'388'608;  ///< of all paths together
    static constexpr std::size_t kLongestPath = 5000;  ///< a longer path opens a directory above it

    OpenObjects() = default;
    explicit OpenObjects(std::size_t capacity) : capacity_(capacity) {}

    /// `error` (errno) says why the object could not be copied.
    void Add(const std::string& below, int error);

    void Remove(const std::string& below);

    void Merge(const OpenObjects& other);

    bool IsEmpty() const { return objects_.empty() && directories_.empty(); }
    std::size_t Size() const { return objects_.size() + directories_.size(); }
    /// Some entries stand for directories with an unknown number of open names.
    bool IsCollapsed() const { return !directories_.empty(); }

    /// Says whether the copy has an object at that path; asked only for collapsed directories.
    using HasCopy = std::function<bool(const std::string& below)>;
    bool Covers(std::string_view below, const HasCopy& has_copy) const;

    /// The object itself, or something below it, is open.
    bool HasAnyIn(std::string_view below) const;

    struct Entry {
        std::string below;  ///< "" is the protected path itself
        int error = 0;      ///< 0 for a collapsed directory
    };
    /// The first `most` entries: objects in order, then collapsed directories.
    std::vector<Entry> Entries(std::size_t most) const;

  private:
    /// Orders paths so that what lies below one follows it directly.
    struct ByComponent {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const;
    };
    enum class Extent { kNewNames, kNewNamesBelow };  ///< directly in the directory; at any depth
    using Objects = std::map<std::string, int, ByComponent>;  ///< none lies below another
    using Directories = std::map<std::string, Extent, ByComponent>;

    bool CoversObject(std::string_view below) const;
    bool IsInCollapsed(std::string_view below) const;
    void Collapse(std::string_view below);
    template <class Map>
    std::size_t Absorb(Map& map, std::string_view directory, bool& only_direct);

    std::size_t capacity_ = kCapacity;
    std::size_t bytes_ = 0;
    Objects objects_;
    Directories directories_;
};

}  // namespace Engine
