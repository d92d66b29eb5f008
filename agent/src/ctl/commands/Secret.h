#pragma once

#include <string>

namespace Ctl {

/// Takes a password in: typed twice, unseen, when standard input is a terminal, else the first line
/// of standard input as it stands. False with a sentence in `error` when there is none or it is one
/// that CheckPassword refuses; the sentence never holds the password. A signal that ends the
/// program leaves the terminal as it was. Blocks until the line is there.
bool ReadPassword(const std::string& prompt, std::string& password, std::string& error);

/// What keeps rsync from using it, as a sentence; empty when nothing does. Blanks, "#" and ":" are
/// characters like others, wherever they stand.
std::string CheckPassword(const std::string& password);

/// Overwrites what `secret` holds, then empties it.
void Forget(std::string& secret);

}  // namespace Ctl
