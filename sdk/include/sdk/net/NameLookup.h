#pragma once

#include <atomic>
#include <memory>
#include <string>

namespace SDK {

/// Asks the resolver for a host's name without blocking the caller. The answer is not kept: a
/// connection asks again and gets it soon. Not thread-safe.
class NameLookup {
  public:
    enum class Result { kPending, kFound, kNotFound };

    /// Begins to ask; the answer for an address in digits is there at once.
    explicit NameLookup(const std::string& host);

    /// The answer; kPending until it is there. An object that is destroyed before leaves a thread
    /// behind, which ends with the resolver's answer.
    Result Poll() const { return *result_; }

  private:
    std::shared_ptr<std::atomic<Result>> result_;
};

}  // namespace SDK
