#pragma once

#include <baseline/ManifestEntry.h>

#include <cstdint>
#include <string>

namespace Sentry {

/// Reads at most `size` bytes and one more from the beginning of the open file. False: errno.
bool ReadWhole(int file, std::uint64_t size, std::string& content);

/// `content` is the approved one.
bool IsContent(const Baseline::ManifestEntry& approved, const std::string& content);

/// The open file has the approved content; reads all of it. False also when it cannot be read.
bool HasContent(int file, const Baseline::ManifestEntry& approved);

}  // namespace Sentry
