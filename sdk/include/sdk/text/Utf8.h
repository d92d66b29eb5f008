#pragma once

#include <string>

namespace SDK {

/// `text` with U+FFFD in place of every byte that is no part of valid UTF-8; valid text comes back
/// as it is. Stateless; any thread.
std::string ToValidUtf8(std::string text);

}  // namespace SDK
