#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>

namespace Sentry {

/// A fanotify group that holds opens and reads until they are answered. When it is closed, the
/// kernel lets all of them go on. Thread-safe.
class FanotifyGroup {
  public:
    /// Check Problem().
    FanotifyGroup();

    /// Why the kernel gave none, in words; else empty.
    const std::string& Problem() const { return problem_; }

    int Descriptor() const { return group_.Get(); }

    /// Asks before opens and reads of all files directly in the open directory. False: errno.
    bool GuardDirectory(int directory) const;

    /// Asks before opens of this file.
    bool GuardFile(const std::string& path) const;

    /// Asks no more about the open file until it is changed.
    bool LetThrough(int file) const;
    /// Asks about it again.
    void AskAgain(int file) const;

    /// Lets the open or read that `event`, a descriptor of an event, stands for go on, or fail with
    /// EPERM.
    void Answer(int event, bool allow) const;

  private:
    SDK::FileDescriptor group_;
    std::string problem_;
};

}  // namespace Sentry
