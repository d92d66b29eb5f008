#pragma once

#include <sdk/text/Secret.h>

#include <string>

namespace Ctl {

using SDK::EraseSecret;

/// As SDK::ReadPassword; false also when CheckPassword refuses it.
bool ReadPassword(const std::string& prompt, std::string& password, std::string& error);

/// Why rsync cannot use the password, as a sentence; empty when it can. Blanks, "#" and ":" are
/// allowed anywhere.
std::string CheckPassword(const std::string& password);

}  // namespace Ctl
