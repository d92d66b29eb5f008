#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>

namespace Agent {

/// Holds the installation's lock file while it lives, so that only one agent runs on it. The
/// kernel releases it with the process, however that ends.
class InstanceLock {
  public:
    enum class Result { kTaken, kHeldByOther, kFailed };

    /// Never waits. With kHeldByOther `holder` is the other agent's process id, or 0 when it has
    /// not written it yet; with kFailed `error` says why.
    Result Take(const std::string& path, int& holder, std::string& error);

  private:
    SDK::FileDescriptor file_;
};

}  // namespace Agent
