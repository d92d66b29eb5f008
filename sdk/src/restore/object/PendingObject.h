#pragma once

#include <sys/stat.h>

#include <string>

#include "restore/object/ObjectAttributes.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// A new object in a directory before it gets its final name. It is made in a staging directory,
/// without a name, or with a random one, and moved into place in one step, so readers see the old
/// or the whole new object.
/// The destructor removes an object that was not moved.
///
/// The directory is borrowed and may belong to a hostile user. Call one Create* once; 0, or -1
/// (errno). Not thread-safe.
class PendingObject {
  public:
    explicit PendingObject(int directory)
        : directory_(directory), temporary_directory_(directory) {}
    ~PendingObject();
    PendingObject(const PendingObject&) = delete;
    PendingObject& operator=(const PendingObject&) = delete;

    /// An empty file, mode 0600, opened for reading and writing. Made in the open directory
    /// `staging` when that is not negative and has space; the caller keeps that descriptor open.
    int CreateFile(int staging = -1);
    /// A symbolic link; opened with O_PATH, like the following.
    int CreateLink(const std::string& text);
    /// A pipe, socket or device, without any permission yet.
    int CreateSpecial(mode_t type, dev_t device);
    /// Another name for the open object `object`.
    int CreateHardLink(int object);

    int Descriptor() const { return object_.Get(); }

    /// Renames it to `name` and replaces any object there, a directory with everything in it.
    /// `is_taken`: an object was there a moment ago. EAGAIN when another process has replaced the
    /// new object.
    FailedStep MoveIntoPlace(const std::string& name, bool is_taken);

  private:
    int CreateNamedFile(int directory);
    int NameIt(int object, const std::string& name) const;
    int NameTemporarily(int object);
    int OpenTemporary(mode_t type);
    FailedStep Replace(const std::string& name);
    FailedStep ReplaceDirectory(const std::string& name);
    FailedStep Verify(const std::string& name) const;

    const int directory_;
    int temporary_directory_;  // where its temporary name is
    FileDescriptor object_;
    bool is_second_name_ = false;
    std::string temporary_;  // its temporary name; empty: none to remove
};

}  // namespace SDK
