// Decides which passwords rsync can use. Must not read or keep one itself (SDK::ReadPassword does).
#include "ctl/commands/Secret.h"

#include <sdk/text/Utf8.h>

namespace Ctl {

namespace {

/// rsync reads its password file into 512 bytes and ignores the rest silently.
constexpr int kMaxPassword = 511;

}  // namespace

std::string CheckPassword(const std::string& password) {
    if (password.empty()) return "The password is empty.";
    if (password.size() > static_cast<std::size_t>(kMaxPassword)) {
        return "The password is longer than the 511 bytes that rsync takes.";
    }
    if (password.find('\0') != std::string::npos) return "The password holds a NUL byte.";
    if (password.find_first_of("\r\n") != std::string::npos) {
        return "The password holds a line end or carriage return, where rsync would cut it off.";
    }
    if (SDK::ToValidUtf8(password) != password) return "The password is not UTF-8.";
    return "";
}

bool ReadPassword(const std::string& prompt, std::string& password, std::string& error) {
    if (!SDK::ReadPassword(prompt, password, error)) return false;
    error = CheckPassword(password);
    if (error.empty()) return true;
    EraseSecret(password);
    return false;
}

}  // namespace Ctl
