#pragma once

#include <memory>
#include <string>

namespace Fleet {

/// Asks the resolver for a host's name without blocking the caller. The answer is not kept: whoever
/// needs the address asks again and gets it soon. Not thread-safe.
class NameLookup {
  public:
    enum class Result { kPending, kFound, kNotFound };

    /// Begins to ask.
    explicit NameLookup(const std::string& host);

    /// Never waits for the resolver: what is still under way goes on without an owner.
    ~NameLookup();
    NameLookup(const NameLookup&) = delete;
    NameLookup& operator=(const NameLookup&) = delete;

    Result Poll();

  private:
    struct Request;
    std::unique_ptr<Request> request_;
};

}  // namespace Fleet
