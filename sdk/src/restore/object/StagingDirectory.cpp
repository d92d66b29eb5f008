#include "sdk/restore/StagingDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "files/DirectoryListing.h"
#include "sdk/files/DirUtils.h"
#include "sdk/restore/ObjectRestorer.h"
#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

/// No restore writes for so long without a change of its file.
constexpr std::time_t kAbandonedSeconds = 600;

bool IsAbandoned(int directory, const char* name, std::time_t now) {
    struct stat info {};
    return StrUtils::BeginsWith(name, ObjectRestorer::kTemporaryPrefix) &&
           ::fstatat(directory, name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           info.st_ctim.tv_sec + kAbandonedSeconds < now;
}

}  // namespace

void StagingDirectory::RemoveAbandoned(std::time_t now) const {
    if (!directory_.IsOpen()) return;
    DirectoryListing listing(directory_.Get());
    while (listing.Next()) {
        if (IsAbandoned(directory_.Get(), listing.Name(), now)) {
            DirUtils::DeleteAt(directory_.Get(), listing.Name());
        }
    }
}

}  // namespace SDK
