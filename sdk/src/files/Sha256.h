#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace SDK {

/// Computes one SHA-256 piece by piece. Not thread-safe.
class Sha256 {
  public:
    Sha256();

    void Update(const void* data, std::size_t size);

    /// The digest in lower-case hex; "" when the library failed in any step. Call once, at the end.
    std::string Hex();

  private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
    bool good_ = false;
};

}  // namespace SDK
