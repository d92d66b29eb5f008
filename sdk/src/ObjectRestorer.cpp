// Restores single objects. It owns the order of steps; what content, attributes and a replacement
// are is said in FileContent, ObjectAttributes and PendingObject. It must not resolve paths
// (PathAnchor does) nor handle directories (TreeRestorer does).
#include "sdk/ObjectRestorer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "FileContent.h"
#include "LateCloser.h"
#include "ObjectAttributes.h"
#include "PendingObject.h"
#include "SymbolicLink.h"

namespace SDK {

namespace {

using Outcome = ObjectRestorer::Outcome;
using Result = ObjectRestorer::Result;

Result ResultOf(const FailedStep& failed) {
    if (failed.IsNone()) return {Outcome::kRestored, 0, ""};
    if (failed.error == ECANCELED) return {Outcome::kInterrupted, ECANCELED, failed.step};
    return {Outcome::kFailed, failed.error, failed.step};
}

bool IsSameState(const struct stat& one, const struct stat& other) {
    return one.st_ino == other.st_ino && one.st_size == other.st_size &&
           one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
           one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

/// True when making the live file `copy`'s gives it powers that it does not have now.
bool GrantsPowers(const ObjectAttributes& copy) {
    return (copy.info.st_mode & (S_ISUID | S_ISGID)) != 0 ||
           copy.extended.count("security.capability") != 0;
}

/// The restore of one regular file. One use.
class FileRestore {
  public:
    FileRestore(int copy_directory, const std::string& copy_name, int directory,
                const std::string& name)
        : copy_directory_(copy_directory),
          copy_name_(copy_name),
          directory_(directory),
          name_(name) {}

    FailedStep Run() {
        FailedStep failed = OpenCopy();
        if (!failed.IsNone()) return failed;
        struct stat live {};
        const int found = ::fstatat(directory_, name_.c_str(), &live, AT_SYMLINK_NOFOLLOW);
        if (found != 0 && errno != ENOENT) return {"look at the file", errno};
        if (found != 0) return Replace(false);
        bool is_done = false;
        if (S_ISREG(live.st_mode)) failed = KeepWhereEqual(live, is_done);
        return is_done || !failed.IsNone() ? failed : Replace(true);
    }

  private:
    bool IsSmall() const {
        return copy_.info.st_size <= FileContent::kSmall && !FileContent::HasHoles(copy_.info);
    }

    FailedStep OpenCopy() {
        source_.Reset(FileContent::Open(copy_directory_, copy_name_, copy_.info));
        if (!source_.IsOpen()) return {"open the copy", errno};
        const FailedStep failed = ReadAttributes(source_.Get(), OpenedAs::kFile, copy_);
        if (!failed.IsNone()) return failed;
        if (IsSmall() && FileContent::ReadSmall(source_.Get(), copy_.info.st_size, content_) != 0) {
            return {"read the copy", errno};
        }
        return {};
    }

    /// Sets `is_done` where the live file has the copy's content and may stay.
    FailedStep KeepWhereEqual(const struct stat& live, bool& is_done) {
        if (live.st_size != copy_.info.st_size) return {};
        // Reading a large file first would only delay it where its content is sure to differ.
        if (!IsSmall() && live.st_mtim.tv_sec != copy_.info.st_mtim.tv_sec) return {};
        ObjectAttributes present;
        former_.Reset(FileContent::Open(directory_, name_, present.info));
        if (!former_.IsOpen() || present.info.st_ino != live.st_ino) return {};
        const int equal = IsContentOf(former_.Get());
        if (equal < 0 && errno == ECANCELED) return {"compare", ECANCELED};
        if (equal <= 0) return {};
        const ExtendedAttributeAccess access(former_.Get(), false);
        if (access.Read(present.extended) != 0) return {};
        const bool differs =
            StatDiffers(copy_.info, present.info) || present.extended != copy_.extended;
        if (!differs) {
            is_done = true;
            return {};
        }
        if (present.info.st_nlink != 1 || OwnerDiffers(copy_.info, present.info) ||
            GrantsPowers(copy_)) {
            return {};
        }
        is_done = true;
        return ApplyAttributes(former_.Get(), OpenedAs::kFile, copy_);
    }

    int IsContentOf(int file) const {
        if (!IsSmall()) return FileContent::IsEqual(source_.Get(), file, copy_.info.st_size);
        std::string content;
        if (FileContent::ReadSmall(file, copy_.info.st_size, content) != 0) return -1;
        return content == content_ ? 1 : 0;
    }

    FailedStep Replace(bool is_taken) {
        PendingObject pending(directory_);
        if (pending.CreateFile() != 0) return {"create", errno};
        const int file = pending.Descriptor();
        const int copied = IsSmall() ? FileContent::Write(file, content_)
                                     : FileContent::Copy(source_.Get(), file, copy_.info);
        if (copied != 0) return {"copy", errno};
        const FailedStep not_set = ApplyAttributes(file, OpenedAs::kFile, copy_);
        struct stat now {};
        if (::fstat(source_.Get(), &now) != 0 || !IsSameState(copy_.info, now)) {
            return {"copy", ESTALE};
        }
        if (is_taken) HoldFormer();
        const FailedStep failed = pending.PutInPlace(name_, is_taken);
        if (former_.IsOpen()) LateCloser::GetInstance().Close(std::move(former_));
        return failed.IsNone() ? not_set : failed;
    }

    /// The rename must not wait for the file that it removes.
    void HoldFormer() {
        if (former_.IsOpen()) return;
        former_.Reset(::openat(directory_, name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    }

    const int copy_directory_;
    const std::string& copy_name_;
    const int directory_;
    const std::string& name_;
    FileDescriptor source_;
    FileDescriptor former_;  // the live object, once it has been opened
    ObjectAttributes copy_;
    std::string content_;  // of a small copy
};

FailedStep RestoreLink(const PathAnchor::Entry& copy, const PathAnchor::Entry& live) {
    SymbolicLink wanted;
    FailedStep failed = wanted.Read(copy.directory.Get(), copy.name);
    if (!failed.IsNone()) return failed;
    struct stat info {};
    const int found =
        ::fstatat(live.directory.Get(), live.name.c_str(), &info, AT_SYMLINK_NOFOLLOW);
    if (found != 0 && errno != ENOENT) return {"look at the link", errno};
    SymbolicLink present;
    if (found == 0 && S_ISLNK(info.st_mode) &&
        present.Read(live.directory.Get(), live.name).IsNone() && present.IsAs(wanted)) {
        return {};
    }
    PendingObject pending(live.directory.Get());
    if (pending.CreateLink(wanted.Text()) != 0) return {"create", errno};
    const FailedStep not_set =
        ApplyAttributes(pending.Descriptor(), OpenedAs::kPath, wanted.Attributes());
    failed = pending.PutInPlace(live.name, found == 0);
    return failed.IsNone() ? not_set : failed;
}

}  // namespace

Result ObjectRestorer::Restore(const PathAnchor::Entry& copy, const PathAnchor::Entry& live) {
    if (!copy.IsOpen() || !live.IsOpen()) return {Outcome::kFailed, EBADF, "find"};
    if (FileContent::IsInterrupted()) return {Outcome::kInterrupted, ECANCELED, "start"};
    struct stat info {};
    if (::fstatat(copy.directory.Get(), copy.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        return {Outcome::kFailed, errno, "look at the copy"};
    }
    if (S_ISLNK(info.st_mode)) return ResultOf(RestoreLink(copy, live));
    if (!S_ISREG(info.st_mode) || info.st_size > kMaxSize) return {Outcome::kUnusual, 0, ""};
    return ResultOf(
        FileRestore(copy.directory.Get(), copy.name, live.directory.Get(), live.name).Run());
}

}  // namespace SDK
