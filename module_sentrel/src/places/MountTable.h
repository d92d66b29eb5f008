#pragma once

#include <sdk/files/FileDescriptor.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Engine {

/// One mount, as /proc/self/mountinfo tells it.
struct Mount {
    std::string point;   ///< where it is mounted
    std::string source;  ///< the device's number and the root of the mount in it
    std::string type;    ///< of the file system

    bool operator<(const Mount& other) const {
        return std::tie(point, source, type) < std::tie(other.point, other.source, other.type);
    }
};

/// The mounts in the text of a mountinfo file; lines of another form are left out. Stateless.
std::set<Mount> ParseMounts(const std::string& mountinfo);

/// Knows which mounts are normal, and how the present ones differ from them. Sees the mounts of the
/// agent's own mount namespace. Paths are as the kernel names them: without links. Thread-safe.
class MountTable {
  public:
    /// A mount that was made or removed since Remember.
    struct Difference {
        std::string point;
        std::string text;  ///< in words: "tmpfs is mounted at /srv/www"
    };

    MountTable();

    /// Opens a file that becomes urgently readable (POLLPRI) with each change of the mounts. Not
    /// open on failure.
    static SDK::FileDescriptor OpenEvents();

    /// Takes the present mounts for normal. Before the first call nothing differs.
    void Remember();

    /// Whether any mount differs. Asks the kernel each time; reads the mounts only after a change.
    bool Differs();
    /// The same as of the last call of Differs.
    bool DifferedLast() const { return differs_; }

    /// The last difference at `path` or above it; its point is empty where there is none.
    Difference Hiding(const std::string& path) const;
    /// The differences below `path`.
    std::vector<Difference> Below(const std::string& path) const;
    /// The remembered mount points below `path`.
    std::vector<std::string> NormalBelow(const std::string& path) const;

  private:
    void Compare();

    const SDK::FileDescriptor file_;  ///< not open: nothing ever differs
    mutable std::mutex mutex_;        ///< guards all below but the atomic
    bool is_remembered_ = false;
    std::set<Mount> normal_;
    std::vector<Difference> differences_;
    std::atomic<bool> differs_{false};
};

}  // namespace Engine
