#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_pkey_st;

namespace SDK {

/// An Ed25519 key: the public part, which verifies, and the private part where it was read.
/// Immutable; thread-safe.
class SigningKey {
  public:
    /// A new pair.
    static std::unique_ptr<SigningKey> Generate();

    /// From the text of a PEM file with a private or a public key. Null for anything else, also for
    /// a key with a passphrase.
    static std::unique_ptr<SigningKey> Read(const std::string& pem);

    bool CanSign() const { return can_sign_; }

    /// Both have the same public part.
    bool IsPairOf(const SigningKey& other) const;

    /// PEM texts; empty on failure.
    std::string PrivatePem() const;
    std::string PublicPem() const;

    /// The 64 bytes of the signature; empty on failure and without the private part.
    std::string Sign(std::string_view message) const;

    bool IsSignature(std::string_view message, std::string_view signature) const;

  private:
    struct Free {
        void operator()(evp_pkey_st* key) const;
    };
    using Handle = std::unique_ptr<evp_pkey_st, Free>;

    SigningKey(Handle key, bool can_sign) : key_(std::move(key)), can_sign_(can_sign) {}

    Handle key_;
    bool can_sign_;
};

}  // namespace SDK
