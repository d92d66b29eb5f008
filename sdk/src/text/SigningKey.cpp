#include "sdk/text/SigningKey.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <array>

namespace SDK {

namespace {

constexpr std::size_t kSignatureSize = 64;

struct FreeBio {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, FreeBio>;

struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_MD_CTX, FreeContext>;

std::string TextOf(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

Bio Reader(const std::string& text) {
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

/// OpenSSL would ask for a passphrase at the terminal.
int NoPassphrase(char*, int, int, void*) {
    return -1;
}

const unsigned char* Bytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

void SigningKey::Free::operator()(evp_pkey_st* key) const {
    EVP_PKEY_free(key);
}

std::unique_ptr<SigningKey> SigningKey::Generate() {
    Handle key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    if (!key) return nullptr;
    return std::unique_ptr<SigningKey>(new SigningKey(std::move(key), true));
}

std::unique_ptr<SigningKey> SigningKey::Read(const std::string& pem) {
    const bool is_private = pem.find("PRIVATE KEY") != std::string::npos;
    const Bio bio = Reader(pem);
    Handle key(is_private ? PEM_read_bio_PrivateKey(bio.get(), nullptr, &NoPassphrase, nullptr)
                          : PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519) return nullptr;
    return std::unique_ptr<SigningKey>(new SigningKey(std::move(key), is_private));
}

bool SigningKey::IsPairOf(const SigningKey& other) const {
    return EVP_PKEY_eq(key_.get(), other.key_.get()) == 1;
}

std::string SigningKey::PrivatePem() const {
    const Bio bio(BIO_new(BIO_s_mem()));
    const bool written = can_sign_ && bio &&
                         PEM_write_bio_PKCS8PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0,
                                                       nullptr, nullptr) == 1;
    return written ? TextOf(bio.get()) : std::string();
}

std::string SigningKey::PublicPem() const {
    const Bio bio(BIO_new(BIO_s_mem()));
    return bio && PEM_write_bio_PUBKEY(bio.get(), key_.get()) == 1 ? TextOf(bio.get())
                                                                   : std::string();
}

std::string SigningKey::Sign(std::string_view message) const {
    const Context context(EVP_MD_CTX_new());
    std::array<unsigned char, kSignatureSize> signature{};
    std::size_t size = signature.size();
    if (!can_sign_ || !context ||
        EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &size, Bytes(message), message.size()) !=
            1) {
        return {};
    }
    return {signature.begin(), signature.begin() + static_cast<std::ptrdiff_t>(size)};
}

bool SigningKey::IsSignature(std::string_view message, std::string_view signature) const {
    const Context context(EVP_MD_CTX_new());
    return context && signature.size() == kSignatureSize &&
           EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key_.get()) == 1 &&
           EVP_DigestVerify(context.get(), Bytes(signature), signature.size(), Bytes(message),
                            message.size()) == 1;
}

}  // namespace SDK
