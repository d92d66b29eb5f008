#include "sdk/text/Utf8.h"

#include <Poco/UTF8Encoding.h>

namespace SDK {

namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

/// Length of the valid sequence at `position`, 0 when there is none.
std::size_t SequenceLength(const std::string& text, std::size_t position) {
    const auto lead = static_cast<unsigned char>(text[position]);
    if (lead < 0x80) return 1;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (position + length > text.size()) return 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data()) + position;
    return Poco::UTF8Encoding::isLegal(bytes, static_cast<int>(length)) ? length : 0;
}

}  // namespace

std::string ToValidUtf8(std::string text) {
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t length = SequenceLength(text, position);
        if (length == 0) break;
        position += length;
    }
    if (position == text.size()) return text;
    std::string valid = text.substr(0, position);
    while (position < text.size()) {
        const std::size_t length = SequenceLength(text, position);
        valid += length == 0 ? kReplacement : text.substr(position, length);
        position += length == 0 ? 1 : length;
    }
    return valid;
}

}  // namespace SDK
