#include "sdk/text/StrUtils.h"

#include <cstdarg>
#include <cstdio>

namespace SDK {

void StrUtils::Trim(std::string& text) {
    constexpr const char* kBlanks = " \t\r\n";
    text.erase(text.find_last_not_of(kBlanks) + 1);
    text.erase(0, text.find_first_not_of(kBlanks));
}

bool StrUtils::BeginsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool StrUtils::EndsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string StrUtils::Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text;
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    va_end(arguments);
    return text;
}

}  // namespace SDK
