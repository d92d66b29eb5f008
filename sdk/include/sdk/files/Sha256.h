#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace SDK {

/// Computes one SHA-256 piece by piece. Not thread-safe.
class Sha256 {
  public:
    using Digest = std::array<unsigned char, 32>;

    Sha256();

    void Update(const void* data, std::size_t size);

    /// Begins anew, at less cost than a new object.
    void Restart();

    /// The digest; false when the library failed in any step. Call once, at the end.
    bool Finish(Digest& digest);

    /// The same in lower-case hex; "" on failure.
    std::string Hex();

  private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
    bool good_ = false;
};

}  // namespace SDK
