#pragma once

#include <string>

namespace SDK {

/// Reads a password: twice without echo from a terminal, else the first line of standard input as
/// it is. False with a sentence in `error`, which never contains the password, when there is none.
/// A signal that ends the program restores the terminal. Blocks until the line is complete. Main
/// thread only.
bool ReadPassword(const std::string& prompt, std::string& password, std::string& error);

/// Overwrites the text of `secret`, then empties it. Thread-safe.
void EraseSecret(std::string& secret);

}  // namespace SDK
