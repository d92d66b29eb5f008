#pragma once

#include <string>

namespace Ctl {

/// Standard input and error are a terminal, so that a question can be answered.
bool IsAtTerminal();

/// Asks on the terminal; the line that was typed, without its end. Empty at the end of the input.
std::string AskLine(const std::string& question);

/// True when "y" or "yes" was typed.
bool Confirm(const std::string& question);

}  // namespace Ctl
