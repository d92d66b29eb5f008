#include "sdk/text/Hmac.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>

#include "sdk/text/StrUtils.h"

namespace SDK {

std::string HmacSha256(std::string_view key, std::string_view message) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest.data(),
             &size) == nullptr) {
        return {};
    }
    std::string hex;
    for (unsigned int at = 0; at < size; ++at) hex += StrUtils::Format("%02x", digest.at(at));
    return hex;
}

}  // namespace SDK
