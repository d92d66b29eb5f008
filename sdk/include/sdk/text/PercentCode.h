#pragma once

#include <string>
#include <string_view>

namespace SDK {

/// Texts of any bytes as ASCII, for documents that take UTF-8 only. Stateless and thread-safe.

/// `bytes` with %XX for each byte that is not printable ASCII, and for "%".
std::string PercentEncode(std::string_view bytes);

/// The bytes of an encoded text. False when `text` has a byte that PercentEncode never writes, or
/// an incomplete %XX.
bool PercentDecode(std::string_view text, std::string& bytes);

}  // namespace SDK
