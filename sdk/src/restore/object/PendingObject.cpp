// Owns a new object and its temporary name until it is in place. Must not read or set content
// and attributes (RestoreSteps does). Runs on the restore's thread.
#include "restore/object/PendingObject.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "sdk/files/DirUtils.h"
#include "sdk/restore/ObjectRestorer.h"

namespace SDK {

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr int kMaxTries = 8;  // so many used random names are no coincidence

std::string RandomName() {
    std::uint64_t number = 0;
    if (::getrandom(&number, sizeof(number), 0) != sizeof(number)) return {};
    std::array<char, 17> digits{};
    std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(number));
    return std::string(ObjectRestorer::kTemporaryPrefix) + digits.data();
}

/// Calls `make(name)` with random names until one is free. Returns that name; "" on failure
/// (errno).
template <typename Make>
std::string MakeTemporary(Make make) {
    for (int tries = 0; tries < kMaxTries; ++tries) {
        std::string name = RandomName();
        if (name.empty()) return {};
        if (make(name.c_str()) == 0) return name;
        if (errno != EEXIST) return {};
    }
    return {};
}

/// Whether the file system or kernel does not support files without a name.
bool IsWithoutNamelessFiles(int error) {
    return error == EOPNOTSUPP || error == EISDIR || error == EINVAL || error == ENOSYS;
}

/// Removes any object of that name; success when there is none.
int RemoveAny(int directory, const std::string& name) {
    return DirUtils::DeleteAt(directory, name) == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace

PendingObject::~PendingObject() {
    const int error = errno;  // keeps the errno that the caller reads next
    if (!temporary_.empty()) ::unlinkat(temporary_directory_, temporary_.c_str(), 0);
    errno = error;
}

// In a staging directory a name is no risk, and renaming costs less than linking and renaming.
int PendingObject::CreateFile(int staging) {
    if (staging >= 0 && CreateNamedFile(staging) == 0) return 0;
    object_.Reset(::openat(directory_, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, kOwnerOnly));
    if (object_.IsOpen()) return 0;
    return IsWithoutNamelessFiles(errno) ? CreateNamedFile(directory_) : -1;
}

int PendingObject::CreateNamedFile(int directory) {
    temporary_directory_ = directory;
    temporary_ = MakeTemporary([&](const char* name) {
        object_.Reset(::openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               kOwnerOnly));
        return object_.IsOpen() ? 0 : -1;
    });
    if (!temporary_.empty()) return 0;
    temporary_directory_ = directory_;
    return -1;
}

int PendingObject::CreateLink(const std::string& text) {
    temporary_ = MakeTemporary(
        [&](const char* name) { return ::symlinkat(text.c_str(), directory_, name); });
    return temporary_.empty() ? -1 : OpenTemporary(S_IFLNK);
}

int PendingObject::CreateSpecial(mode_t type, dev_t device) {
    temporary_ = MakeTemporary(
        [&](const char* name) { return ::mknodat(directory_, name, type & S_IFMT, device); });
    return temporary_.empty() ? -1 : OpenTemporary(type & S_IFMT);
}

int PendingObject::CreateHardLink(int object) {
    is_second_name_ = true;
    object_.Reset(::fcntl(object, F_DUPFD_CLOEXEC, 0));
    return object_.IsOpen() ? NameTemporarily(object) : -1;
}

// Another user may replace the object meanwhile, but not by one of this process's user and this
// type.
int PendingObject::OpenTemporary(mode_t type) {
    object_.Reset(::openat(directory_, temporary_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!object_.IsOpen() || ::fstat(object_.Get(), &info) != 0) return -1;
    if ((info.st_mode & S_IFMT) == type && info.st_uid == ::geteuid() && info.st_nlink == 1) {
        return 0;
    }
    errno = EAGAIN;
    return -1;
}

// Linking a descriptor needs a privilege; without it /proc is used, which may be missing.
int PendingObject::NameIt(int object, const std::string& name) const {
    if (::linkat(object, "", directory_, name.c_str(), AT_EMPTY_PATH) == 0) return 0;
    if (errno != ENOENT && errno != EPERM) return -1;
    return ::linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(object)).c_str(), directory_,
                    name.c_str(), AT_SYMLINK_FOLLOW);
}

int PendingObject::NameTemporarily(int object) {
    temporary_ = MakeTemporary([&](const char* name) { return NameIt(object, name); });
    return temporary_.empty() ? -1 : 0;
}

FailedStep PendingObject::MoveIntoPlace(const std::string& name, bool is_taken) {
    if (temporary_.empty()) {
        if (!is_taken && NameIt(object_.Get(), name) == 0) return Verify(name);
        if (!is_taken && errno != EEXIST) return {"link", errno};
        if (NameTemporarily(object_.Get()) != 0) return {"link", errno};
    }
    const FailedStep failed = Replace(name);
    if (!failed.IsNone()) return failed;
    // rename(2) does nothing when both are names of one object; otherwise the name is gone already.
    if (is_second_name_) ::unlinkat(temporary_directory_, temporary_.c_str(), 0);
    temporary_.clear();
    return Verify(name);
}

FailedStep PendingObject::Replace(const std::string& name) {
    if (::renameat(temporary_directory_, temporary_.c_str(), directory_, name.c_str()) == 0)
        return {};
    return errno == EISDIR ? ReplaceDirectory(name) : FailedStep{"rename", errno};
}

// An exchange is one step, whatever the directory holds. Where the file system cannot exchange, the
// directory is removed first.
FailedStep PendingObject::ReplaceDirectory(const std::string& name) {
    if (::renameat2(temporary_directory_, temporary_.c_str(), directory_, name.c_str(),
                    RENAME_EXCHANGE) == 0) {
        if (RemoveAny(temporary_directory_, temporary_) != 0)
            return {"remove the directory", errno};
        return {};
    }
    if (errno != EINVAL && errno != ENOSYS) return {"rename", errno};
    if (RemoveAny(directory_, name) != 0) return {"remove the directory", errno};
    if (::renameat(temporary_directory_, temporary_.c_str(), directory_, name.c_str()) != 0) {
        return {"rename", errno};
    }
    return {};
}

FailedStep PendingObject::Verify(const std::string& name) const {
    struct stat ours {};
    struct stat there {};
    if (::fstat(object_.Get(), &ours) != 0) return {"verify", errno};
    if (::fstatat(directory_, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0 ||
        IdOf(ours) != IdOf(there)) {
        return {"verify", EAGAIN};
    }
    return {};
}

}  // namespace SDK
