#include "files/FileContent.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "sdk/files/FileDescriptor.h"
#include "sdk/time/CommandInterrupter.h"

namespace SDK {

namespace {

constexpr off_t kPiece = 8 * 1024 * 1024;  // between two checks for an interruption
constexpr std::size_t kBuffer = 256 * 1024;
constexpr off_t kBlock = 512;  // the unit of st_blocks

int Fail(int error) {
    errno = error;
    return -1;
}

/// A buffer that is not initialised before it is read into.
class Buffer {
  public:
    Buffer() : data_(new char[kBuffer]) {}
    char* Data() { return data_.get(); }

  private:
    std::unique_ptr<char[]> data_;
};

/// Reads until `size` bytes or the end of the file; the number of bytes, or -1.
ssize_t ReadAt(int file, char* data, std::size_t size, off_t at) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(file, data + done, size - done, at + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

int WriteAt(int file, const char* data, std::size_t size, off_t at) {
    while (size > 0) {
        const ssize_t written = ::pwrite(file, data, size, at);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return -1;
        if (written == 0) return Fail(ENOSPC);
        data += written;
        at += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

/// Calls `handle(offset, size)` for the pieces of the range until one returns non-zero.
template <typename Handle>
int ForEachPiece(off_t start, off_t end, off_t size, Handle handle) {
    off_t looked = start;
    for (off_t at = start; at < end; at += size) {
        if (at - looked >= kPiece) {
            if (CommandInterrupter::IsCurrentInterrupted()) return Fail(ECANCELED);
            looked = at;
        }
        const int result = handle(at, std::min(size, end - at));
        if (result != 0) return result;
    }
    return 0;
}

int CopyByHand(int from, int to, off_t start, off_t end) {
    Buffer buffer;
    return ForEachPiece(start, end, kBuffer, [&](off_t at, off_t size) {
        const auto wanted = static_cast<std::size_t>(size);
        const ssize_t got = ReadAt(from, buffer.Data(), wanted, at);
        if (got < 0) return -1;
        if (got < size) return Fail(ESTALE);
        return WriteAt(to, buffer.Data(), wanted, at);
    });
}

/// Whether read and write may work where copy_file_range(2) failed: it is missing, or does not
/// support these file systems.
bool IsWorthCopyingByHand(int error) {
    return error == EXDEV || error == ENOSYS || error == EOPNOTSUPP || error == EINVAL ||
           error == EPERM || error == ETXTBSY;
}

int CopyRange(int from, int to, off_t start, off_t end) {
    return ForEachPiece(start, end, kPiece, [&](off_t at, off_t size) {
        off_t source = at;
        off_t target = at;
        while (source < at + size) {
            const auto wanted = static_cast<std::size_t>(at + size - source);
            const ssize_t done = ::copy_file_range(from, &source, to, &target, wanted, 0);
            if (done > 0 || (done < 0 && errno == EINTR)) continue;
            if (done < 0 && !IsWorthCopyingByHand(errno)) return -1;
            // Also when nothing was copied: some file systems report no file sizes.
            return CopyByHand(from, to, source, at + size);
        }
        return 0;
    });
}

}  // namespace

int FileContent::Open(int directory, const std::string& name, struct stat& info) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // Only owners and root may use O_NOATIME.
    FileDescriptor file(::openat(directory, name.c_str(), kFlags | O_NOATIME));
    if (!file.IsOpen() && errno == EPERM) {
        file.Reset(::openat(directory, name.c_str(), kFlags));
    }
    if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0) return -1;
    return S_ISREG(info.st_mode) ? file.Release() : Fail(EINVAL);
}

// Asks for one byte more, to notice a file that has grown.
int FileContent::ReadSmall(int file, off_t size, std::string& content) {
    content.resize(static_cast<std::size_t>(size) + 1);
    ssize_t got = ::pread(file, content.data(), content.size(), 0);
    if (got >= 0 && got < size) got = ReadAt(file, content.data(), content.size(), 0);
    if (got < 0) return -1;
    if (got != size) return Fail(ESTALE);
    content.pop_back();
    return 0;
}

int FileContent::IsEqual(int one, int other, off_t size, off_t begin) {
    Buffer ours;
    Buffer theirs;
    constexpr int kDifferent = 1;
    const int result = ForEachPiece(begin, size, kBuffer, [&](off_t at, off_t length) {
        const auto wanted = static_cast<std::size_t>(length);
        const ssize_t got = ReadAt(one, ours.Data(), wanted, at);
        const ssize_t got_other = ReadAt(other, theirs.Data(), wanted, at);
        if (got < 0 || got_other < 0) return -1;
        if (got < length || got_other < length) return kDifferent;
        return std::memcmp(ours.Data(), theirs.Data(), wanted) == 0 ? 0 : kDifferent;
    });
    return result < 0 ? -1 : 1 - result;
}

int FileContent::Write(int to, const std::string& content) {
    return WriteAt(to, content.data(), content.size(), 0);
}

int FileContent::Copy(int from, int to, const struct stat& info) {
    if (!HasHoles(info)) return CopyRange(from, to, 0, info.st_size);
    for (off_t at = 0; at < info.st_size;) {
        const off_t start = ::lseek(from, at, SEEK_DATA);
        if (start < 0 && errno == ENXIO) break;
        if (start < 0) return -1;
        const off_t end = std::min(::lseek(from, start, SEEK_HOLE), info.st_size);
        if (end < 0) return -1;
        if (CopyRange(from, to, start, end) != 0) return -1;
        at = std::max(end, start);
    }
    return ::ftruncate(to, info.st_size);
}

bool FileContent::HasHoles(const struct stat& info) {
    return info.st_blocks < (info.st_size + kBlock - 1) / kBlock;
}

}  // namespace SDK
