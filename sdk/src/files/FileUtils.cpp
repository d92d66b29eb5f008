#include "sdk/files/FileUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "files/AtomicFile.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/files/Sha256.h"
#include "sdk/files/WriteAll.h"

namespace SDK {

namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr mode_t kNewFileMode = 0600;

int Fail(int error) {
    errno = error;
    return -1;
}

int NotRegular(mode_t mode) {
    return Fail(S_ISDIR(mode) ? EISDIR : EINVAL);
}

/// Opens `path`, which may be relative to `directory`, for reading and never waits for a writer;
/// not open (errno) when it is not a regular file.
FileDescriptor OpenChecked(int directory, const std::string& path, int extra_flags) {
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | extra_flags;
    FileDescriptor file(::openat(directory, path.c_str(), flags));
    // Only owners and root may use O_NOATIME.
    if (!file.IsOpen() && errno == EPERM && (flags & O_NOATIME) != 0) {
        file.Reset(::openat(directory, path.c_str(), flags & ~O_NOATIME));
    }
    struct stat info {};
    if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0) return {};
    if (S_ISREG(info.st_mode)) return file;
    NotRegular(info.st_mode);
    return {};
}

/// The same, but follows links. Checks the type first, since opening alone makes some devices act.
FileDescriptor OpenRegular(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return {};
    if (S_ISREG(info.st_mode)) return OpenChecked(AT_FDCWD, path, 0);
    NotRegular(info.st_mode);
    return {};
}

/// Passes at most `limit` bytes of the file to `take(data, size)`, which returns 0 to continue.
template <typename Take>
int ReadUpTo(int fd, long limit, Take take) {
    std::array<char, kChunk> buffer{};
    while (limit > 0) {
        const std::size_t wanted = std::min(static_cast<std::size_t>(limit), buffer.size());
        const ssize_t got = ::read(fd, buffer.data(), wanted);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) return 0;
        if (take(buffer.data(), static_cast<std::size_t>(got)) != 0) return -1;
        limit -= got;
    }
    return 0;
}

int HashFile(int directory, const std::string& path, long limit, Sha256& digest) {
    const FileDescriptor file = OpenChecked(directory, path, O_NOFOLLOW | O_NOATIME);
    if (!file.IsOpen()) return -1;
    return ReadUpTo(file.Get(), limit, [&](const char* data, std::size_t size) {
        digest.Update(data, size);
        return 0;
    });
}

int HashLinkText(int directory, const std::string& path, Sha256& digest) {
    std::array<char, PATH_MAX> text{};
    const ssize_t length = ::readlinkat(directory, path.c_str(), text.data(), text.size());
    if (length < 0) return -1;
    digest.Update(text.data(), static_cast<std::size_t>(length));
    return 0;
}

int Append(const std::string& path, const std::string& content) {
    const FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
               kNewFileMode));
    struct stat info {};
    if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0) return -1;
    if (!S_ISREG(info.st_mode)) return NotRegular(info.st_mode);
    if (::fchmod(file.Get(), kNewFileMode) != 0) return -1;
    return WriteAll(file.Get(), content.data(), content.size());
}

char TypeLetter(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return 'd';
        case S_IFLNK:
            return 'l';
        case S_IFCHR:
            return 'c';
        case S_IFBLK:
            return 'b';
        case S_IFIFO:
            return 'p';
        case S_IFSOCK:
            return 's';
        case S_IFREG:
            return '-';
        default:
            return '?';
    }
}

}  // namespace

int FileUtils::GetFileSha256(const std::string& path, std::string& out, long limit) {
    return GetFileSha256(AT_FDCWD, path, out, limit);
}

int FileUtils::GetFileSha256(int directory, const std::string& name, std::string& out, long limit) {
    out.clear();
    if (limit < 0) return Fail(EINVAL);
    struct stat info {};
    if (::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    if (S_ISDIR(info.st_mode)) return Fail(EISDIR);
    Sha256 digest;
    if (S_ISLNK(info.st_mode) && HashLinkText(directory, name, digest) != 0) return -1;
    if (S_ISREG(info.st_mode) && HashFile(directory, name, limit, digest) != 0) return -1;
    out = digest.Hex();
    return out.empty() ? Fail(ENOTSUP) : 0;
}

int FileUtils::ReadFile(const std::string& path, std::string& content, long max_size) {
    content.clear();
    const FileDescriptor file = OpenRegular(path);
    if (!file.IsOpen()) return -1;
    const int result = ReadUpTo(file.Get(), max_size, [&](const char* data, std::size_t size) {
        content.append(data, size);
        return 0;
    });
    if (result != 0) content.clear();
    return result;
}

int FileUtils::WriteFile(const std::string& path, const std::string& content, bool append) {
    if (append) return Append(path, content);
    AtomicFile file(path);
    if (file.Open() != 0 || file.Write(content.data(), content.size()) != 0) return -1;
    return file.Commit();
}

int FileUtils::TalDeleteFile(const std::string& path) {
    return ::unlink(path.c_str());
}

int FileUtils::TalCopyFile(const std::string& from, const std::string& to, long max_size) {
    const FileDescriptor source = OpenRegular(from);
    if (!source.IsOpen()) return -1;
    AtomicFile target(to);
    if (target.Open() != 0) return -1;
    const int copied = ReadUpTo(source.Get(), max_size, [&](const char* data, std::size_t size) {
        return target.Write(data, size);
    });
    return copied == 0 ? target.Commit() : -1;
}

int FileUtils::GetFileSize(const std::string& path, long& size) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return -1;
    if (!S_ISREG(info.st_mode)) return NotRegular(info.st_mode);
    size = info.st_size;
    return 0;
}

bool FileUtils::IsFile(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool FileUtils::IsFileElf(const std::string& path) {
    constexpr const char* kMagic = "\177ELF";
    std::string head;
    return ReadFile(path, head, static_cast<long>(std::strlen(kMagic))) == 0 && head == kMagic;
}

std::string FileUtils::StModeToStr(mode_t mode) {
    constexpr const char* kLetters = "rwxrwxrwx";
    std::string text(1, TypeLetter(mode));
    for (int bit = 0; bit < 9; ++bit) text += (mode & (0400U >> bit)) != 0 ? kLetters[bit] : '-';
    const auto special = [&](mode_t flag, std::size_t place, char with_x, char without_x) {
        if ((mode & flag) != 0) text[place] = text[place] == 'x' ? with_x : without_x;
    };
    special(S_ISUID, 3, 's', 'S');
    special(S_ISGID, 6, 's', 'S');
    special(S_ISVTX, 9, 't', 'T');
    return text;
}

}  // namespace SDK
