#include "sdk/text/Utf8.h"

#include <Poco/UTF8Encoding.h>

namespace SDK {

namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

/// Length of the valid sequence at `place`, 0 when there is none.
std::size_t SequenceLength(const std::string& text, std::size_t place) {
    const auto lead = static_cast<unsigned char>(text[place]);
    if (lead < 0x80) return 1;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (place + length > text.size()) return 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data()) + place;
    return Poco::UTF8Encoding::isLegal(bytes, static_cast<int>(length)) ? length : 0;
}

}  // namespace

std::string ToValidUtf8(std::string text) {
    std::size_t place = 0;
    while (place < text.size()) {
        const std::size_t length = SequenceLength(text, place);
        if (length == 0) break;
        place += length;
    }
    if (place == text.size()) return text;
    std::string valid = text.substr(0, place);
    while (place < text.size()) {
        const std::size_t length = SequenceLength(text, place);
        valid += length == 0 ? kReplacement : text.substr(place, length);
        place += length == 0 ? 1 : length;
    }
    return valid;
}

}  // namespace SDK
