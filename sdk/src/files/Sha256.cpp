#include "files/Sha256.h"

#include <openssl/evp.h>

#include <array>

namespace SDK {

namespace {

/// Fetched once: that costs as much as hashing a small page.
const EVP_MD* Algorithm() {
    static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return algorithm;
}

}  // namespace

void Sha256::Free::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    good_ = context_ && EVP_DigestInit_ex(context_.get(), Algorithm(), nullptr) == 1;
}

void Sha256::Update(const void* data, std::size_t size) {
    good_ = good_ && EVP_DigestUpdate(context_.get(), data, size) == 1;
}

std::string Sha256::Hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    good_ = good_ && EVP_DigestFinal_ex(context_.get(), digest.data(), &length) == 1;
    if (!good_) return {};
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    good_ = false;
    return text;
}

}  // namespace SDK
