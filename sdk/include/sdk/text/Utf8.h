#pragma once

#include <string>

namespace SDK {

/// `text` with U+FFFD for every byte that is not valid UTF-8; valid text is returned unchanged.
/// Stateless and thread-safe.
std::string ToValidUtf8(std::string text);

}  // namespace SDK
