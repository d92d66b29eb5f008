#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>

namespace Agent {

/// Holds the installation's lock file while it lives, so that only one agent uses the installation.
/// The kernel releases it at the end of the process. Not thread-safe.
class InstanceLock {
  public:
    enum class Result { kTaken, kHeldByOther, kFailed };

    /// Never blocks. With kHeldByOther `holder` is the other agent's process id, or 0 when that is
    /// not written yet; with kFailed `error` says why.
    Result Take(const std::string& path, int& holder, std::string& error);

  private:
    SDK::FileDescriptor file_;
};

}  // namespace Agent
