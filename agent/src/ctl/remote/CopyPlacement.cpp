// Owns what becomes of fetched objects. It must not believe them: a content counts after it was
// copied into a file that nobody else can write to and has the digest of the manifest.
#include "ctl/remote/CopyPlacement.h"

#include <baseline/ContentHasher.h>
#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace Ctl {

namespace {

constexpr char kName[] = "object";
constexpr char kMissing[] = "the server sent nothing";
constexpr char kAnother[] = "the server sent something else";
constexpr char kSpecial[] = "it is neither a file, a link nor a directory";

std::string Error(const char* step) {
    return std::string("cannot ") + step + ": " + std::strerror(errno);
}

/// Copies `size` bytes; false (errno 0: there are fewer).
bool CopyContent(int from, int to, std::uint64_t size, const std::function<bool()>& is_over) {
    constexpr std::size_t kPiece = 16 * 1024 * 1024;
    std::array<char, 64 * 1024> buffer{};
    bool is_fast = true;
    while (size > 0 && !is_over()) {
        const std::size_t most = static_cast<std::size_t>(std::min<std::uint64_t>(size, kPiece));
        ssize_t count =
            is_fast ? ::copy_file_range(from, nullptr, to, nullptr, most, 0) : ssize_t{-1};
        if (count < 0) {
            is_fast = false;
            count = ::read(from, buffer.data(), std::min(most, buffer.size()));
            if (count > 0 && ::write(to, buffer.data(), static_cast<std::size_t>(count)) != count) {
                return false;
            }
        }
        if (count <= 0) {
            if (count == 0) errno = 0;
            return false;
        }
        size -= static_cast<std::uint64_t>(count);
    }
    return size == 0;
}

/// Owner, mode and time as approved. The owner comes first: its change clears setuid bits.
bool Align(int directory, const char* name, const Baseline::ManifestEntry& entry) {
    if (::fchownat(directory, name, entry.user, entry.group, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    if (!S_ISLNK(entry.mode) && ::fchmodat(directory, name, entry.mode & ALLPERMS, 0) != 0) {
        return false;
    }
    if (S_ISDIR(entry.mode)) return true;
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, timespec{entry.modified, 0}};
    return ::utimensat(directory, name, times.data(), AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

CopyPlacement::CopyPlacement(const ApprovedPart& part, const SDK::PathAnchor& backup,
                             const SDK::PathAnchor& made, const ServerCopies& fetched,
                             std::function<bool()> is_over)
    : part_(part), backup_(backup), made_(made), fetched_(fetched), is_over_(std::move(is_over)) {}

CopyPlacement::Result CopyPlacement::Place(const std::vector<LostCopy>& lost) {
    Result result;
    const Baseline::Manifest& manifest = *part_.generation.manifest;
    const std::string root = CopyRoot(manifest.Info());
    for (const LostCopy& one : lost) {
        if (is_over_()) break;
        std::string why = PlaceOne(one);
        if (why.empty()) {
            ++result.placed;
            if (one.is_content && !S_ISDIR(manifest.At(one.entry).mode)) ++result.contents;
            continue;
        }
        const std::string below(manifest.At(one.entry).path);
        result.faults.push_back({below.empty() ? root : root + "/" + below, std::move(why)});
    }
    return result;
}

/// Why it cannot be placed; else empty.
std::string CopyPlacement::PlaceOne(const LostCopy& lost) {
    const Entry entry = part_.generation.manifest->At(lost.entry);
    const std::string below(entry.path);
    const std::string root = CopyRoot(part_.generation.manifest->Info());
    const std::string path = below.empty() ? root : root + "/" + below;
    const std::string in_backup = path.substr(backup_.Path().size() + 1);
    if (!MakeParents(in_backup)) return Error("make the directory above it");
    const ObjectPlace copy = backup_.OpenParent(in_backup);
    if (!copy.IsOpen()) return Error("open the directory above it");
    if (!lost.is_content) {
        return Align(copy.directory.Get(), copy.name.c_str(), entry) ? ""
                                                                     : Error("set owner or mode");
    }
    switch (entry.Type()) {
        case S_IFREG:
            return PlaceFile(entry, path, copy);
        case S_IFLNK:
            return PlaceLink(entry, path, copy);
        case S_IFDIR:
            return PlaceDirectory(entry, copy);
        default:
            return kSpecial;
    }
}

std::string CopyPlacement::PlaceFile(const Entry& entry, const std::string& path,
                                     const ObjectPlace& copy) {
    const auto parent = SDK::PathAnchor::Open(fetched_.PlaceOf("", false));
    const ObjectPlace place =
        parent == nullptr ? ObjectPlace() : parent->OpenParent(path.substr(1));
    if (!place.IsOpen()) return kMissing;
    const SDK::FileDescriptor from(::openat(place.directory.Get(), place.name.c_str(),
                                            O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!from.IsOpen()) return errno == ENOENT ? kMissing : kAnother;
    if (::fstat(from.Get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::uint64_t>(info.st_size) != entry.size) {
        return kAnother;
    }
    ::unlinkat(made_.Descriptor(), kName, 0);
    const SDK::FileDescriptor to(::openat(made_.Descriptor(), kName,
                                          O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                          S_IRUSR | S_IWUSR));
    if (!to.IsOpen()) return Error("make a new file");
    if (!CopyContent(from.Get(), to.Get(), entry.size, is_over_)) {
        return errno == 0 ? kAnother : Error("copy it");
    }
    Baseline::ContentHasher::Result found;
    if (!Baseline::DigestOf(made_.Descriptor(), kName, entry.size, is_over_, found) ||
        found.digest != entry.content) {
        return kAnother;
    }
    if (::fsync(to.Get()) != 0) return Error("write it to the disk");
    return MoveInto(entry, copy);
}

std::string CopyPlacement::PlaceLink(const Entry& entry, const std::string& path,
                                     const ObjectPlace& copy) {
    const auto parent = SDK::PathAnchor::Open(fetched_.PlaceOf("", true));
    const ObjectPlace place =
        parent == nullptr ? ObjectPlace() : parent->OpenParent(path.substr(1));
    if (!place.IsOpen()) return kMissing;
    std::string text(PATH_MAX, '\0');
    const ssize_t length =
        ::readlinkat(place.directory.Get(), place.name.c_str(), text.data(), text.size());
    if (length < 0) return errno == ENOENT ? kMissing : kAnother;
    text.resize(static_cast<std::size_t>(length));
    if (Baseline::DigestOf(text) != entry.content) return kAnother;
    ::unlinkat(made_.Descriptor(), kName, 0);
    if (::symlinkat(text.c_str(), made_.Descriptor(), kName) != 0) return Error("make a link");
    return MoveInto(entry, copy);
}

/// What stands there and is no directory leaves; what is below stays.
std::string CopyPlacement::PlaceDirectory(const Entry& entry, const ObjectPlace& copy) {
    const int parent = copy.directory.Get();
    const char* const name = copy.name.c_str();
    struct stat info {};
    const bool is_there = ::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) == 0;
    if (is_there && !S_ISDIR(info.st_mode) && ::unlinkat(parent, name, 0) != 0) {
        return Error("remove what stands in its place");
    }
    if (::mkdirat(parent, name, S_IRWXU) != 0 && errno != EEXIST) return Error("make a directory");
    return Align(parent, name, entry) ? "" : Error("set owner or mode");
}

std::string CopyPlacement::MoveInto(const Entry& entry, const ObjectPlace& copy) {
    if (!Align(made_.Descriptor(), kName, entry)) return Error("set owner, mode or time");
    const int parent = copy.directory.Get();
    const char* const name = copy.name.c_str();
    struct stat info {};
    if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode) &&
        SDK::DirUtils::DeleteAt(parent, copy.name) != 0) {
        return Error("remove the directory in its place");
    }
    if (::renameat(made_.Descriptor(), kName, parent, name) != 0) return Error("put it in place");
    return "";
}

/// Directories above the protected path, which no manifest lists.
bool CopyPlacement::MakeParents(const std::string& below) {
    for (std::size_t slash = below.find('/'); slash != std::string::npos;
         slash = below.find('/', slash + 1)) {
        const ObjectPlace above = backup_.OpenParent(below.substr(0, slash));
        if (!above.IsOpen()) return false;
        if (::mkdirat(above.directory.Get(), above.name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

}  // namespace Ctl
