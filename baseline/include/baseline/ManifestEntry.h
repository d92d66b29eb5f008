#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace Baseline {

/// A SHA-256.
using Digest = std::array<unsigned char, 32>;

/// Which state of which object something was known of. The kernel sets the ctime with every change
/// and nobody can set it back, so an object with the same identity has not changed since.
struct Identity {
    std::uint64_t inode = 0;   ///< 0: not known
    std::int64_t changed = 0;  ///< ctime, nanoseconds since the epoch

    static Identity Of(const struct stat& info) {
        constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
        return {info.st_ino, info.st_ctim.tv_sec * kNanosPerSecond + info.st_ctim.tv_nsec};
    }
    bool IsKnown() const { return inode != 0; }
    bool operator==(const Identity& other) const {
        return inode == other.inode && changed == other.changed;
    }
};

/// What an operator approved of one object.
struct ManifestEntry {
    std::string_view path;   ///< relative to the protected path; "" is that path itself
    std::uint32_t mode = 0;  ///< type and permissions; 0: the object could not be copied
    std::uint32_t user = 0;
    std::uint32_t group = 0;
    std::uint64_t size = 0;     ///< bytes; 0 for what is no file
    std::int64_t modified = 0;  ///< mtime, seconds since the epoch; 0 for a directory
    Digest content{};           ///< of a file's content or a link's text; else zeros
    Identity live;              ///< the object on the site whose state this is
    Identity copy;              ///< its backup copy when the content was read

    bool IsOpen() const { return mode == 0; }
    mode_t Type() const { return mode & S_IFMT; }
};

/// Orders paths so that all below a directory follows it directly: negative, 0 or positive.
int ComparePaths(std::string_view a, std::string_view b);

/// `path` is `directory` or lies below it; "" holds everything.
bool IsWithin(std::string_view path, std::string_view directory);

}  // namespace Baseline
