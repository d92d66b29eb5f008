#pragma once

#include <string>

namespace SDK {

/// `text` in that colour when standard output is a terminal, else unchanged.
enum class Colour { kRed, kGreen, kYellow, kBold };
std::string Coloured(const std::string& text, Colour colour);

/// Switches colours on or off; for tests.
void SetColours(bool on);

/// True when the reader of standard output has closed it.
bool IsOutputClosed();

/// Local time as "08:37:33" when it is today's, else as "2026-11-21 08:37:33".
std::string ShortTime(long long epoch_ms, long long now_ms);

}  // namespace SDK
