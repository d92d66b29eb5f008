#pragma once

#include <string>
#include <string_view>

namespace Ctl {

/// `text` in a form that is safe to print on a terminal: control characters, bytes that are not
/// UTF-8, and characters that hide or reorder others become "
/// ", "\x1b" or "\u202e". A backslash is doubled, so that no name looks like an escape of another.
/// With `keep_tabs` tabs stay.
std::string Printable(std::string_view text, bool keep_tabs = false);

/// `text` in that colour when standard output is a terminal, else unchanged.
enum class Colour { kRed, kGreen, kYellow, kBold };
std::string Coloured(const std::string& text, Colour colour);

/// Switches colours on or off; for tests.
void SetColours(bool on);

/// True when the reader of standard output has closed it.
bool IsOutputClosed();

/// Local time as "08:37:33" when it is today's, else as "2026-11-21 08:37:33".
std::string ShortTime(long long epoch_ms, long long now_ms);

}  // namespace Ctl
