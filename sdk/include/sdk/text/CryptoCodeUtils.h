#pragma once

#include <string>

namespace SDK {

/// Identifiers and codes. Stateless; any thread.
class CryptoCodeUtils {
  public:
    /// A fresh random UUID in its 36-character lower-case form.
    static std::string GenerateUUID();
};

}  // namespace SDK
