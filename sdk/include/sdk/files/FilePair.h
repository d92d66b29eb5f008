#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <tuple>

#include "sdk/files/FileDescriptor.h"
#include "sdk/files/PathAnchor.h"

namespace SDK {

/// A regular file and its copy, open for a comparison of their whole content. Follows no link and
/// blocks on no pipe. Not thread-safe.
class FilePair {
  public:
    /// The state of a file's content. Nobody but the kernel sets the ctime, so equal states have
    /// equal content.
    struct FileState {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        std::int64_t changed_s = 0;  ///< the ctime
        std::int64_t changed_ns = 0;

        static FileState Of(const struct stat& info);
        auto Key() const { return std::tie(device, inode, size, changed_s, changed_ns); }
    };
    struct State {
        FileState live;
        FileState copy;

        bool operator==(const State& other) const { return !(*this < other) && !(other < *this); }
        bool operator<(const State& other) const {
            return live.Key() != other.live.Key() ? live.Key() < other.live.Key()
                                                  : copy.Key() < other.copy.Key();
        }
    };

    /// Opens both. Not open when one is missing or no regular file.
    FilePair(const PathAnchor::Entry& live, const PathAnchor::Entry& copy);

    bool IsOpen() const { return live_.IsOpen() && copy_.IsOpen(); }

    /// The present state of the open files.
    State Now() const;

    /// 1 when both have the same bytes from `begin` to `end`, 0 when not, -1 on failure (errno).
    int IsEqual(off_t begin, off_t end) const;

  private:
    FileDescriptor live_;
    FileDescriptor copy_;
};

}  // namespace SDK
