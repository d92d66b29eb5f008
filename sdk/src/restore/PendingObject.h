#pragma once

#include <sys/stat.h>

#include <string>

#include "restore/ObjectAttributes.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// A new object in a directory, on its way to the name that it is meant for: made without a name,
/// or with a random one where that cannot be, then put in place in one step. So whoever looks there
/// sees the former object or the whole new one. What has not been put in place goes with it.
///
/// The directory is the caller's, may belong to somebody hostile, and outlives the object. One
/// thread; one Create* a life. 0, or -1 (errno).
class PendingObject {
  public:
    explicit PendingObject(int directory) : directory_(directory) {}
    ~PendingObject();
    PendingObject(const PendingObject&) = delete;
    PendingObject& operator=(const PendingObject&) = delete;

    /// An empty file, mode 0600, opened for reading and writing; made in the directory `staging`
    /// where that is not negative and allows it. It is then the caller's, too.
    int CreateFile(int staging = -1);
    /// A symbolic link; opened by O_PATH, as the following are.
    int CreateLink(const std::string& text);
    /// A pipe, socket or device, without any permission yet.
    int CreateSpecial(mode_t type, dev_t device);
    /// Another name of the object that `object` has open.
    int CreateHardLink(int object);

    int Descriptor() const { return object_.Get(); }

    /// Gives it the name `name` in place of whatever bears it, a directory with all that it holds
    /// included; `is_taken` says whether something did a moment ago. EAGAIN when another object
    /// stands there afterwards: somebody was quicker.
    FailedStep PutInPlace(const std::string& name, bool is_taken);

  private:
    int NameIt(int object, const std::string& name) const;
    int NameTemporarily(int object);
    int OpenTemporary(mode_t type);
    FailedStep Replace(const std::string& name);
    FailedStep ReplaceDirectory(const std::string& name);
    FailedStep Verify(const std::string& name) const;

    const int directory_;
    FileDescriptor object_;
    bool is_second_name_ = false;
    std::string temporary_;  // in the directory; empty: it has no name to be removed
};

}  // namespace SDK
