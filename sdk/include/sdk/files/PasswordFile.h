#pragma once

#include <string>

namespace SDK {

/// The first line of a password file. False with `error` when it is empty, cannot be read, or is
/// open to others than its owner and group. Thread-safe.
bool ReadPasswordFile(const std::string& path, std::string& password, std::string& error);

}  // namespace SDK
