#include "sdk/files/Sha256.h"

#include <openssl/evp.h>

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
    Restart();
}

void Sha256::Restart() {
    good_ = context_ && EVP_DigestInit_ex(context_.get(), Algorithm(), nullptr) == 1;
}

void Sha256::Update(const void* data, std::size_t size) {
    good_ = good_ && EVP_DigestUpdate(context_.get(), data, size) == 1;
}

bool Sha256::Finish(Digest& digest) {
    unsigned int length = 0;
    const bool finished = good_ &&
                          EVP_DigestFinal_ex(context_.get(), digest.data(), &length) == 1 &&
                          length == digest.size();
    good_ = false;
    return finished;
}

std::string Sha256::Hex() {
    Digest digest{};
    if (!Finish(digest)) return {};
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

}  // namespace SDK
