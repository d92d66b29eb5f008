#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// The kernel's side of watching: one inotify descriptor. The seam where tests put in failures.
/// Owned by the task; its thread only, Add excepted.
class InotifyDescriptor {
  public:
    virtual ~InotifyDescriptor() = default;

    /// 0, or the errno of what failed. Opening an open one is success.
    virtual int Open();
    virtual void Close();

    /// Watches the directory that `dir_fd` is open on, by that descriptor and not by its path, so
    /// that it is surely this one. Adds to the mask of a directory watched already. The watch
    /// descriptor, or -errno. Any thread.
    virtual int Add(int dir_fd, std::uint32_t mask);

    /// A watch that is gone already is no failure.
    virtual void Remove(int wd);

    /// read(2); never blocks.
    virtual ssize_t Read(char* buffer, std::size_t size);

    int Fd() const { return inotify_.Get(); }

  private:
    SDK::FileDescriptor inotify_;
};

}  // namespace Engine::FileNotify
