#include "files/OpenBeneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <utility>

namespace SDK {

namespace {

constexpr int kResolving = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kMaxTries = 16;

FileDescriptor OpenPiece(int directory, const std::string& path, int flags,
                         MountPoints mount_points) {
    struct open_how how {};
    how.flags = static_cast<decltype(how.flags)>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    if (mount_points == MountPoints::kRefused) how.resolve |= RESOLVE_NO_XDEV;
    long fd = -1;
    // EAGAIN: something was moved or mounted meanwhile.
    for (int tries = 0; tries < kMaxTries; ++tries) {
        fd = ::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof(how));
        if (fd >= 0 || (errno != EAGAIN && errno != EINTR)) break;
    }
    return FileDescriptor(static_cast<int>(fd));
}

/// The length of the longest prefix that the kernel accepts at once and that ends in "/"; 0 when a
/// single component is too long.
std::size_t PieceLength(std::string_view path) {
    const std::size_t slash = path.rfind('/', PATH_MAX - 2);
    return slash == std::string_view::npos ? 0 : slash + 1;
}

}  // namespace

FileDescriptor OpenBeneath(int directory, std::string_view path, int flags,
                           MountPoints mount_points) {
    FileDescriptor held;
    const auto at = [&] { return held.IsOpen() ? held.Get() : directory; };
    while (path.size() >= PATH_MAX) {
        const std::size_t length = PieceLength(path);
        if (length == 0) {
            errno = ENAMETOOLONG;
            return {};
        }
        held = OpenPiece(at(), std::string(path.substr(0, length)), kResolving, mount_points);
        if (!held.IsOpen()) return {};
        // Another "/" would make the rest absolute.
        path.remove_prefix(std::min(path.find_first_not_of('/', length), path.size()));
    }
    return OpenPiece(at(), path.empty() ? "." : std::string(path), flags, mount_points);
}

}  // namespace SDK
