// Knows which characters are unsafe to show. Stateless and thread-safe.
#include "sdk/text/Printable.h"

#include <Poco/UTF8Encoding.h>

#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

/// Characters that a terminal does not show as they are: control characters, and those that hide
/// text, break lines or change the writing direction.
bool IsUnsafeToPrint(int code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0xad || code == 0x61c ||
           (code >= 0x200b && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2060 && code <= 0x206f) || code == 0xfeff ||
           (code >= 0xfff9 && code <= 0xfffb) || (code >= 0xe0000 && code <= 0xe007f);
}

/// The length and code of the UTF-8 character at the beginning of `text`; 0 when it is invalid.
int Decode(std::string_view text, int& code) {
    static const Poco::UTF8Encoding utf8;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const int length = utf8.sequenceLength(bytes, 1);
    if (length < 1 || length > static_cast<int>(text.size()) ||
        !Poco::UTF8Encoding::isLegal(bytes, length)) {
        return 0;
    }
    code = utf8.queryConvert(bytes, length);
    return code >= 0 ? length : 0;
}

std::string Escape(int code) {
    switch (code) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return code < 0x80 ? StrUtils::Format("\\x%02x", code)
                               : StrUtils::Format("\\u%04x", code);
    }
}

}  // namespace

std::string Printable(std::string_view text, bool keep_tabs) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        int code = 0;
        const int length = Decode(text, code);
        if (length == 0) {
            out += StrUtils::Format("\\x%02x", static_cast<unsigned char>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        if (code == '\\') {
            out += "\\\\";
        } else if (IsUnsafeToPrint(code) && !(keep_tabs && code == '\t')) {
            out += Escape(code);
        } else {
            out.append(text.substr(0, static_cast<std::size_t>(length)));
        }
        text.remove_prefix(static_cast<std::size_t>(length));
    }
    return out;
}

}  // namespace SDK
