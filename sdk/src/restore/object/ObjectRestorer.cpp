#include "sdk/restore/ObjectRestorer.h"

#include <fcntl.h>

#include <cerrno>

#include "restore/object/ObjectAttributes.h"
#include "restore/object/RestoreSteps.h"
#include "sdk/time/CommandInterrupter.h"

namespace SDK {

ObjectRestorer::Result ObjectRestorer::Restore(const PathAnchor::Entry& copy,
                                               const PathAnchor::Entry& live, off_t max_size,
                                               StagingDirectory* staging) {
    if (!copy.IsOpen() || !live.IsOpen()) return {Outcome::kFailed, EBADF, "find"};
    if (CommandInterrupter::IsCurrentInterrupted())
        return {Outcome::kInterrupted, ECANCELED, "start"};
    struct stat info {};
    if (::fstatat(copy.directory.Get(), copy.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        return {Outcome::kFailed, errno, "look at the copy"};
    }
    const bool is_usual =
        S_ISLNK(info.st_mode) || (S_ISREG(info.st_mode) && info.st_size <= max_size);
    if (!is_usual) return {Outcome::kUnusual, 0, ""};
    return ResultOf(RestoreObject({copy.directory.Get(), copy.name},
                                  {live.directory.Get(), live.name}, info.st_mode, staging));
}

}  // namespace SDK
