#pragma once

#include <string>

namespace Collector {

constexpr std::size_t kLeastPassword = 10;  ///< bytes
constexpr std::size_t kMostPassword = 256;

/// Argon2id with a random salt, in its text form. Takes some tenths of a second and 64 MiB. Throws
/// std::runtime_error when the memory is missing.
std::string HashPassword(const std::string& password);

/// False also for a text that is no such hash. As expensive as HashPassword.
bool IsPassword(const std::string& hash, const std::string& password);

}  // namespace Collector
