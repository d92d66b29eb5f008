#include "sdk/text/PercentCode.h"

#include <charconv>

#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

constexpr std::size_t kDigits = 2;
constexpr int kHex = 16;

bool IsPrintable(char character) {
    return character >= ' ' && character <= '~';
}

}  // namespace

std::string PercentEncode(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (const char byte : bytes) {
        if (IsPrintable(byte) && byte != '%') {
            text += byte;
        } else {
            text += StrUtils::Format("%%%02X", static_cast<unsigned char>(byte));
        }
    }
    return text;
}

bool PercentDecode(std::string_view text, std::string& bytes) {
    bytes.clear();
    while (!text.empty()) {
        if (!IsPrintable(text.front())) return false;
        if (text.front() != '%') {
            bytes += text.front();
            text.remove_prefix(1);
            continue;
        }
        unsigned char byte = 0;
        if (text.size() <= kDigits) return false;
        const char* const end = text.data() + 1 + kDigits;
        const auto read = std::from_chars(text.data() + 1, end, byte, kHex);
        if (read.ec != std::errc() || read.ptr != end) return false;
        bytes += static_cast<char>(byte);
        text.remove_prefix(1 + kDigits);
    }
    return true;
}

}  // namespace SDK
