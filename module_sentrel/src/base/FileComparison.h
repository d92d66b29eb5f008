#pragma once

#include <sys/types.h>

#include <string>

namespace Engine {

constexpr long kDigestLimit = 10 * 1024 * 1024;  ///< bytes of a file that a digest covers

// Both give false also when the file is missing or cannot be read. Nothing is logged. Stateless;
// thread-safe.

/// The SHA-256 of the file's first kDigestLimit bytes is `digest`, byte for byte.
bool HasDigest(const std::string& path, const std::string& digest);

/// The whole st_mode, file type included, and the owner are equal. Links are not followed.
bool HasAttributes(const std::string& path, mode_t mode, uid_t uid, gid_t gid);

}  // namespace Engine
