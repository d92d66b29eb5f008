#include "base/Password.h"

#include <argon2.h>
#include <openssl/rand.h>

#include <array>
#include <stdexcept>

namespace Collector {

namespace {

constexpr std::uint32_t kPasses = 3;
constexpr std::uint32_t kMemoryKiB = 64 * 1024;
constexpr std::uint32_t kLanes = 1;
constexpr std::size_t kHashBytes = 32;

}  // namespace

std::string HashPassword(const std::string& password) {
    std::array<unsigned char, 16> salt{};
    if (::RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) {
        throw std::runtime_error("the system has no random numbers");
    }
    std::string hash(
        ::argon2_encodedlen(kPasses, kMemoryKiB, kLanes, salt.size(), kHashBytes, Argon2_id), '\0');
    const int error =
        ::argon2id_hash_encoded(kPasses, kMemoryKiB, kLanes, password.data(), password.size(),
                                salt.data(), salt.size(), kHashBytes, hash.data(), hash.size());
    if (error != ARGON2_OK) throw std::runtime_error(::argon2_error_message(error));
    hash.resize(hash.find('\0'));
    return hash;
}

bool IsPassword(const std::string& hash, const std::string& password) {
    return ::argon2id_verify(hash.c_str(), password.data(), password.size()) == ARGON2_OK;
}

}  // namespace Collector
