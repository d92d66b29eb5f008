// Owns which object of the live tree stands for which object of the copy. It must not walk the
// trees (TreeRestorer does). Runs on the restore's thread.
#include "restore/tree/HardLinks.h"

#include <fcntl.h>

#include <cerrno>

#include "files/OpenBeneath.h"
#include "restore/object/PendingObject.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

namespace {

bool IsObject(EntryRef entry, const ObjectId& id) {
    struct stat info {};
    return ::fstatat(entry.directory, entry.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           IdOf(info) == id;
}

}  // namespace

FailedStep HardLinks::Restore(int live_root, EntryRef copy, EntryRef live, const std::string& path,
                              const struct stat& info) {
    const auto first = restored_.find(IdOf(info));
    if (first != restored_.end()) {
        bool is_done = false;
        const FailedStep failed = Link(live_root, first->second, live, is_done);
        if (is_done) return failed;
    }
    const FailedStep failed = RestoreObject(copy, live, info.st_mode, staging_);
    struct stat restored {};
    if (failed.IsNone() &&
        ::fstatat(live.directory, live.name.c_str(), &restored, AT_SYMLINK_NOFOLLOW) == 0) {
        restored_[IdOf(info)] = {path, IdOf(restored)};
    }
    return failed;
}

/// Leaves `is_done` false where the object is not found at its first name any more.
FailedStep HardLinks::Link(int live_root, const LiveObject& object, EntryRef live, bool& is_done) {
    is_done = true;
    if (IsObject(live, object.id)) return {};
    const FileDescriptor first =
        OpenBeneath(live_root, object.path, O_PATH | O_NOFOLLOW | O_CLOEXEC, MountPoints::kRefused);
    struct stat found {};
    if (first.IsOpen() && ::fstat(first.Get(), &found) == 0 && IdOf(found) == object.id) {
        PendingObject pending(live.directory);
        if (pending.CreateHardLink(first.Get()) != 0) return {"link", errno};
        return pending.MoveIntoPlace(live.name, true);
    }
    is_done = false;
    return {};
}

}  // namespace SDK
