// Decides what is foreign in one directory and removes it. It must not restore anything
// (RestoreSteps does); TreeRemover removes whole trees. Runs on the restore's thread.
#include "restore/tree/ForeignObjects.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "files/DirectoryListing.h"
#include "files/TreePath.h"
#include "files/TreeRemover.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

namespace {

constexpr std::int64_t kRemovalLimitMs = 10'000;
constexpr unsigned kEntriesPerCheck = 64;  // of the clock

}  // namespace

void ForeignObjects::Remove() {
    const std::int64_t end = TimeUtils::GetMonotonicMs() + kRemovalLimitMs;
    DirectoryListing listing(directory_.live);
    for (unsigned seen = 1; !progress_.MustStop() && listing.Next(); ++seen) {
        const std::string name = listing.Name();
        if (IsForeign(name, listing.IsDirectory())) RemoveObject(name);
        if (seen % kEntriesPerCheck == 0 && TimeUtils::GetMonotonicMs() > end) {
            progress_.Note({"remove", ETIMEDOUT});
            return;
        }
    }
    if (listing.Error() != 0) progress_.Note({"list the directory", listing.Error()});
}

bool ForeignObjects::IsForeign(const std::string& name, bool is_directory) {
    struct stat info {};
    const bool has_copy = ::fstatat(directory_.copy, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
    if (!has_copy && errno != ENOENT) {
        progress_.Note({"look at the copy", errno});
        return false;
    }
    if (has_copy && !IsExcluded(filter_, directory_.below, name, S_ISDIR(info.st_mode))) {
        return false;
    }
    return !IsExcluded(filter_, directory_.below, name, is_directory);
}

void ForeignObjects::RemoveObject(const std::string& name) {
    int result = ::unlinkat(directory_.live, name.c_str(), 0);
    if (result != 0 && errno == EISDIR) {
        result = TreeRemover(filter_, JoinPath(directory_.below, name), kRemovalLimitMs)
                     .RemoveAt(directory_.live, name);
    }
    if (result != 0 && errno != ENOENT) progress_.Note({"remove", errno});
}

}  // namespace SDK
