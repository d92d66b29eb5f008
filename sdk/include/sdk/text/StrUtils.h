#pragma once

#include <string>
#include <string_view>

namespace SDK {

/// String helpers. Stateless and thread-safe.
class StrUtils {
  public:
    /// Removes leading and trailing space, tab, carriage return and line feed in place.
    static void Trim(std::string& text);

    static bool BeginsWith(std::string_view text, std::string_view prefix);
    static bool EndsWith(std::string_view text, std::string_view suffix);

    /// printf-style, of any length.
    static std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

}  // namespace SDK
