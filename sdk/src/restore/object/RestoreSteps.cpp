// Owns the order of steps that restore a single object. FileContent has content, ObjectAttributes
// attributes, PendingObject the replacement. Must not resolve paths (PathAnchor does) or handle
// directories (TreeRestorer does). Runs on the caller's thread.
#include "restore/object/RestoreSteps.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "files/FileContent.h"
#include "restore/object/BackgroundCloser.h"
#include "restore/object/PendingObject.h"
#include "restore/object/SymbolicLink.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

namespace {

bool IsSameState(const struct stat& one, const struct stat& other) {
    return one.st_ino == other.st_ino && one.st_size == other.st_size &&
           one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
           one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

/// True when the restored file gets privileges that it may not have now.
bool GrantsPowers(const ObjectAttributes& copy) {
    return (copy.info.st_mode & (S_ISUID | S_ISGID)) != 0 ||
           copy.extended.Has("security.capability");
}

/// The restore of one regular file. Call Run once.
class FileRestore {
  public:
    FileRestore(EntryRef copy, EntryRef live, StagingDirectory* staging)
        : copy_entry_(copy), live_(live), staging_(staging) {}

    FailedStep Run() {
        FailedStep failed = OpenCopy();
        if (!failed.IsNone()) return failed;
        struct stat live {};
        const int found =
            ::fstatat(live_.directory, live_.name.c_str(), &live, AT_SYMLINK_NOFOLLOW);
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
        source_.Reset(FileContent::Open(copy_entry_.directory, copy_entry_.name, copy_.info));
        if (!source_.IsOpen()) return {"open the copy", errno};
        const ExtendedAttributeAccess access(source_.Get(), false);
        if (access.Read(copy_.extended) != 0) return {"read the extended attributes", errno};
        if (IsSmall() && FileContent::ReadSmall(source_.Get(), copy_.info.st_size, content_) != 0) {
            return {"read the copy", errno};
        }
        return {};
    }

    /// Sets `is_done` when the live file has the copy's content and can stay.
    FailedStep KeepWhereEqual(const struct stat& live, bool& is_done) {
        if (live.st_size != copy_.info.st_size) return {};
        // For a large file the time decides: its content is then sure to differ.
        if (!IsSmall() && live.st_mtim.tv_sec != copy_.info.st_mtim.tv_sec) return {};
        ObjectAttributes present;
        live_file_.Reset(FileContent::Open(live_.directory, live_.name, present.info));
        if (!live_file_.IsOpen() || present.info.st_ino != live.st_ino) return {};
        const int equal = IsContentOf(live_file_.Get());
        if (equal < 0 && errno == ECANCELED) return {"compare", ECANCELED};
        if (equal <= 0) return {};
        const ExtendedAttributeAccess access(live_file_.Get(), false);
        if (access.Read(present.extended) != 0) return {};
        const bool differs = StatDiffers(copy_.info, present.info) ||
                             AttributeComparison::Differ(present.extended, copy_.extended);
        if (!differs) {
            is_done = true;
            return {};
        }
        if (present.info.st_nlink != 1 || OwnerDiffers(copy_.info, present.info) ||
            GrantsPowers(copy_)) {
            return {};
        }
        is_done = true;
        return ApplyAttributes(live_file_.Get(), OpenedAs::kFile, copy_);
    }

    int IsContentOf(int file) const {
        if (!IsSmall()) return FileContent::IsEqual(source_.Get(), file, copy_.info.st_size);
        std::string content;
        if (FileContent::ReadSmall(file, copy_.info.st_size, content) != 0) return -1;
        return content == content_ ? 1 : 0;
    }

    FailedStep Replace(bool is_taken) {
        const int staging = staging_ == nullptr ? -1 : staging_->Descriptor();
        const FailedStep failed = ReplaceBy(staging, is_taken);
        if (staging < 0 || failed.error != EXDEV) return failed;
        staging_->GiveUp();
        return ReplaceBy(-1, is_taken);
    }

    FailedStep ReplaceBy(int staging, bool is_taken) {
        PendingObject pending(live_.directory);
        if (pending.CreateFile(staging) != 0) return {"create", errno};
        const int file = pending.Descriptor();
        const int copied = IsSmall() ? FileContent::Write(file, content_)
                                     : FileContent::Copy(source_.Get(), file, copy_.info);
        if (copied != 0) return {"copy", errno};
        const FailedStep not_set = ApplyAttributes(file, OpenedAs::kFile, copy_);
        struct stat now {};
        if (::fstat(source_.Get(), &now) != 0 || !IsSameState(copy_.info, now)) {
            return {"copy", ESTALE};
        }
        if (is_taken) KeepLiveObjectOpen();
        const FailedStep failed = pending.MoveIntoPlace(live_.name, is_taken);
        if (live_file_.IsOpen()) BackgroundCloser::GetInstance().Close(std::move(live_file_));
        return failed.IsNone() ? not_set : failed;
    }

    /// Keeps the old file open, so that the rename does not wait for its removal.
    void KeepLiveObjectOpen() {
        if (live_file_.IsOpen()) return;
        live_file_.Reset(
            ::openat(live_.directory, live_.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    }

    const EntryRef copy_entry_;
    const EntryRef live_;
    StagingDirectory* const staging_;  // may be null
    FileDescriptor source_;
    FileDescriptor live_file_;  // the live object, when it is open
    ObjectAttributes copy_;
    std::string content_;  // of a small copy
};

FailedStep RestoreLink(EntryRef copy, EntryRef live) {
    SymbolicLink wanted;
    FailedStep failed = wanted.Read(copy.directory, copy.name);
    if (!failed.IsNone()) return failed;
    struct stat info {};
    const int found = ::fstatat(live.directory, live.name.c_str(), &info, AT_SYMLINK_NOFOLLOW);
    if (found != 0 && errno != ENOENT) return {"look at the link", errno};
    SymbolicLink present;
    if (found == 0 && S_ISLNK(info.st_mode) && present.Read(live.directory, live.name).IsNone() &&
        present.IsAs(wanted)) {
        return {};
    }
    PendingObject pending(live.directory);
    if (pending.CreateLink(wanted.Text()) != 0) return {"create", errno};
    const FailedStep not_set =
        ApplyAttributes(pending.Descriptor(), OpenedAs::kPath, wanted.Attributes());
    failed = pending.MoveIntoPlace(live.name, found == 0);
    return failed.IsNone() ? not_set : failed;
}

/// The attributes of an object of any kind; opened with O_PATH only.
FailedStep ReadByPath(EntryRef place, ObjectAttributes& found) {
    const FileDescriptor object(
        ::openat(place.directory, place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!object.IsOpen()) return {"open", errno};
    return ReadAttributes(object.Get(), OpenedAs::kPath, found);
}

bool IsSpecial(mode_t mode) {
    return S_ISFIFO(mode) || S_ISSOCK(mode) || S_ISCHR(mode) || S_ISBLK(mode);
}

FailedStep RestoreSpecial(EntryRef copy, EntryRef live) {
    ObjectAttributes wanted;
    FailedStep failed = ReadByPath(copy, wanted);
    if (!failed.IsNone()) return failed;
    if (!IsSpecial(wanted.info.st_mode)) return {"open the copy", ESTALE};
    ObjectAttributes present;
    const bool is_taken = ReadByPath(live, present).IsNone();
    if (is_taken && (present.info.st_mode & S_IFMT) == (wanted.info.st_mode & S_IFMT) &&
        present.info.st_rdev == wanted.info.st_rdev && !StatDiffers(wanted.info, present.info) &&
        !AttributeComparison::Differ(present.extended, wanted.extended)) {
        return {};
    }
    PendingObject pending(live.directory);
    if (pending.CreateSpecial(wanted.info.st_mode, wanted.info.st_rdev) != 0) {
        return {"create", errno};
    }
    const FailedStep not_set = ApplyAttributes(pending.Descriptor(), OpenedAs::kPath, wanted);
    failed = pending.MoveIntoPlace(live.name, is_taken);
    return failed.IsNone() ? not_set : failed;
}

}  // namespace

FailedStep RestoreObject(EntryRef copy, EntryRef live, mode_t mode, StagingDirectory* staging) {
    if (S_ISREG(mode)) return FileRestore(copy, live, staging).Run();
    return S_ISLNK(mode) ? RestoreLink(copy, live) : RestoreSpecial(copy, live);
}

ObjectRestorer::Result ResultOf(const FailedStep& failed) {
    if (failed.IsNone()) return {ObjectRestorer::Outcome::kRestored, 0, ""};
    if (failed.error == ECANCELED)
        return {ObjectRestorer::Outcome::kInterrupted, ECANCELED, failed.step};
    return {ObjectRestorer::Outcome::kFailed, failed.error, failed.step};
}

}  // namespace SDK
