#pragma once

#include <string>
#include <string_view>

namespace SDK {

/// `text` in a form that is safe to show to people: control characters, bytes that are not UTF-8,
/// and characters that hide or reorder others become "\n", "\x1b" or "\u202e". A backslash is
/// doubled, so that no name looks like an escape of another. With `keep_tabs` tabs stay. Stateless
/// and thread-safe.
std::string Printable(std::string_view text, bool keep_tabs = false);

}  // namespace SDK
