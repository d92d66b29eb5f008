#pragma once

#include <string>

namespace Ctl {

/// Reads a password: twice without echo from a terminal, else the first line of standard input as
/// it is. False with a sentence in `error`, which never contains the password, when there is none
/// or CheckPassword refuses it. A signal that ends the program restores the terminal. Blocks until
/// the line is complete.
bool ReadPassword(const std::string& prompt, std::string& password, std::string& error);

/// Why rsync cannot use the password, as a sentence; empty when it can. Blanks, "#" and ":" are
/// allowed anywhere.
std::string CheckPassword(const std::string& password);

/// Overwrites the text of `secret`, then empties it.
void EraseSecret(std::string& secret);

}  // namespace Ctl
