#pragma once

#include <sys/stat.h>

#include <map>
#include <string>

#include "restore/object/RestoreSteps.h"

namespace SDK {

/// Restores objects that have several names in the copy: the first name as any object, each further
/// name as a hard link to it. Owned by the restore of one tree. Not thread-safe.
class HardLinks {
  public:
    /// `staging` is borrowed and may be null.
    explicit HardLinks(StagingDirectory* staging) : staging_(staging) {}

    /// Makes `live` as `copy`, which `info` describes. `path` is the path of `live` below the
    /// directory `live_root`.
    FailedStep Restore(int live_root, EntryRef copy, EntryRef live, const std::string& path,
                       const struct stat& info);

  private:
    struct LiveObject {
        std::string path;  // of the first name that was restored
        ObjectId id;
    };

    static FailedStep Link(int live_root, const LiveObject& object, EntryRef live, bool& is_done);

    StagingDirectory* const staging_;
    std::map<ObjectId, LiveObject> restored_;  // by the copy's object
};

}  // namespace SDK
