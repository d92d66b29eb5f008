#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// One inotify descriptor. Tests derive from it to inject failures. Owned by NotifyCore. Not
/// thread-safe; only Add may also be called from a second thread.
class InotifyDescriptor {
  public:
    virtual ~InotifyDescriptor() = default;

    /// Returns 0, or errno. Does nothing when it is open already.
    virtual int Open();
    virtual void Close();

    /// Watches the directory that `dir_fd` is open on. Uses the descriptor instead of a path, which
    /// could lead to another directory by now. Adds to the mask of a watched directory. Returns the
    /// watch descriptor, or -errno. Thread-safe.
    virtual int Add(int dir_fd, std::uint32_t mask);

    /// Ends a watch. A watch that has ended already is not an error.
    virtual void Remove(int wd);

    /// read(2): returns the size in bytes, or -1 with errno. Never blocks.
    virtual ssize_t Read(char* buffer, std::size_t size);

    int Fd() const { return inotify_.Get(); }

  private:
    SDK::FileDescriptor inotify_;
};

}  // namespace Engine::FileNotify
