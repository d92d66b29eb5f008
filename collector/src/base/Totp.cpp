#include "base/Totp.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Collector {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr std::size_t kSecretBytes = 20;
constexpr std::int64_t kStepSeconds = 30;
constexpr int kBitsPerLetter = 5;
constexpr int kBitsPerByte = 8;
constexpr std::uint32_t kCodes = 1'000'000;

std::string ToBase32(const std::array<unsigned char, kSecretBytes>& bytes) {
    std::string text;
    std::uint32_t bits = 0;
    int count = 0;
    for (const unsigned char byte : bytes) {
        bits = (bits << kBitsPerByte) | byte;
        for (count += kBitsPerByte; count >= kBitsPerLetter; count -= kBitsPerLetter) {
            text += kAlphabet[(bits >> (count - kBitsPerLetter)) & 0x1FU];
        }
    }
    return text;
}

/// Empty when `text` has a letter that is none.
std::vector<unsigned char> FromBase32(const std::string& text) {
    std::vector<unsigned char> bytes;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char letter : text) {
        const char* const found = std::strchr(kAlphabet, letter);
        if (letter == '\0' || found == nullptr) return {};
        bits = (bits << kBitsPerLetter) | static_cast<std::uint32_t>(found - kAlphabet);
        count += kBitsPerLetter;
        if (count < kBitsPerByte) continue;
        count -= kBitsPerByte;
        bytes.push_back(static_cast<unsigned char>(bits >> count));
    }
    return bytes;
}

std::string CodeOf(const std::vector<unsigned char>& secret, std::int64_t step) {
    std::array<unsigned char, 8> counter{};
    for (std::size_t at = 0; at < counter.size(); ++at) {
        counter[counter.size() - 1 - at] = static_cast<unsigned char>(step >> (kBitsPerByte * at));
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (::HMAC(EVP_sha1(), secret.data(), static_cast<int>(secret.size()), counter.data(),
               counter.size(), digest.data(), &length) == nullptr ||
        length < kSecretBytes) {
        return "";
    }
    const std::size_t offset = digest[length - 1] & 0xFU;
    const std::uint32_t number = (digest[offset] & 0x7FU) << 24U | digest[offset + 1] << 16U |
                                 digest[offset + 2] << 8U | digest[offset + 3];
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%06u", number % kCodes);
    return text.data();
}

}  // namespace

std::string NewTotpSecret() {
    std::array<unsigned char, kSecretBytes> bytes{};
    if (::RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("the system has no random numbers");
    }
    return ToBase32(bytes);
}

std::optional<std::int64_t> TotpStep(const std::string& secret, const std::string& code,
                                     std::int64_t now_s, std::int64_t last_step) {
    const std::vector<unsigned char> key = FromBase32(secret);
    if (key.empty()) return {};
    const std::int64_t now = now_s / kStepSeconds;
    for (std::int64_t step = std::max(now - 1, last_step + 1); step <= now + 1; ++step) {
        const std::string expected = CodeOf(key, step);
        if (!expected.empty() && expected.size() == code.size() &&
            ::CRYPTO_memcmp(expected.data(), code.data(), code.size()) == 0) {
            return step;
        }
    }
    return {};
}

}  // namespace Collector
