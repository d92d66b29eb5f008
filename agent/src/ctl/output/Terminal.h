#pragma once

#include <string>
#include <string_view>

namespace Ctl {

/// `text` in a form that a terminal shows and never obeys: control characters, bytes that are no
/// UTF-8, and the characters that hide or reorder others are written as "\n", "\x1b" or "\u202e".
/// A backslash is doubled, so that no name can look like another one's escape. Tabs stay when
/// `keep_tabs` is set.
std::string Printable(std::string_view text, bool keep_tabs = false);

/// `text` in that colour when standard output is a terminal, plain otherwise.
enum class Colour { kRed, kGreen, kYellow, kBold };
std::string Coloured(const std::string& text, Colour colour);

/// Forces colours on or off; for tests.
void SetColours(bool on);

/// Local time as "08:37:33" when it is today's, else as "2026-11-21 08:37:33".
std::string ShortTime(long long epoch_ms, long long now_ms);

}  // namespace Ctl
