#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "who/process/Process.h"

namespace Sentry {

/// A protected path as the agent names it.
struct WatchedPath {
    std::string path;                   ///< without a "/" at its end
    std::vector<std::string> excluded;  ///< beginnings of whole paths
    bool operator==(const WatchedPath& other) const {
        return path == other.path && excluded == other.excluded;
    }
};

/// The directories of the protected paths, each with a mark of a fanotify group that tells of
/// changes in it. New directories are found by the events that the owner passes on. A directory
/// with very many events rests: it has its mark only for a part of each second, so that attribution
/// does not slow its writer down. Not thread-safe.
class WatchedTrees {
  public:
    static constexpr std::size_t kMostDirectories = 262144;
    /// A directory with more events within kPart rests until the second is over.
    static constexpr int kMostEvents = 2000;
    static constexpr Nanoseconds kPart = kSecond / 10;

    /// Borrows `group`.
    explicit WatchedTrees(int group) : group_(group) {}

    /// Replaces the watched paths. Work places the marks.
    void Watch(std::vector<WatchedPath> paths);

    /// Places a bounded number of marks and removes those of directories that must rest. True when
    /// it must be called again at once.
    bool Work(Nanoseconds now);

    /// The path of an object: `key` is its directory's as in an event. Empty for a directory that
    /// is not known. Counts the event.
    std::string PathOf(const std::string& key, const std::string& name, Nanoseconds now);

    /// A directory appeared at, or vanished from, that path.
    void Appeared(const std::string& path) { to_mark_.push_back(path); }
    void Vanished(const std::string& path);

    /// That directory has been watched for long, so no change in it went unseen.
    bool IsSettled(const std::string& directory, Nanoseconds now) const;

    /// The directory of `path` rested at that time.
    bool Rested(const std::string& path, Nanoseconds at) const;

    std::size_t Marks() const { return directories_.size(); }
    std::size_t Resting() const { return resting_.size(); }
    /// Why some directory has no mark; empty: all have one.
    const std::string& Problem() const { return problem_; }

    /// The key of a file handle as events hold it: file system, type and handle.
    static std::string Key(const void* fsid, int type, const unsigned char* handle,
                           std::size_t size);

  private:
    struct Directory {
        std::string path;
        Nanoseconds marked = 0;
        Nanoseconds window = 0;
        int events = 0;
        Nanoseconds rest_begin = 0;
        Nanoseconds rest_end = 0;  ///< 0: it never rested
    };
    struct Root {
        WatchedPath watched;
        std::unique_ptr<SDK::PathAnchor> anchor;
    };

    const Root* RootOf(const std::string& path) const;
    SDK::FileDescriptor Open(const std::string& path) const;
    void Mark(const std::string& path, Nanoseconds now);
    bool Remember(int directory, const std::string& path, Nanoseconds now);
    void Descend(int directory, const std::string& path);
    void WakeResting(Nanoseconds now);
    void Refresh(Nanoseconds now);
    void BeginRest(const std::string& key, Directory& directory, Nanoseconds now);

    const int group_;
    std::vector<Root> roots_;
    std::deque<std::string> to_mark_;
    std::unordered_map<std::string, Directory> directories_;  ///< by key
    std::map<std::string, std::string> keys_;                 ///< by path
    std::vector<std::string> to_rest_;
    std::vector<std::string> resting_;  ///< keys
    Nanoseconds next_refresh_ = 0;
    std::string problem_;
};

}  // namespace Sentry
