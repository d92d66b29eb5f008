#pragma once

#include <string>

namespace SDK {

/// String helpers. Stateless; any thread.
class StrUtils {
  public:
    /// Removes leading and trailing space, tab, carriage return and line feed in place.
    static void Trim(std::string& text);

    /// printf-style, of any length.
    static std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

}  // namespace SDK
