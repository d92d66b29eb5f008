#pragma once

#include <string>
#include <vector>

namespace SDK {

/// The words of a command line that means the same with and without a shell; empty when it needs a
/// shell, or may need one. Accepts only plain and double-quoted words, and only a program name with
/// a "/", since a shell may know other names itself. Thread-safe.
std::vector<std::string> SplitPlainCommand(const std::string& command);

}  // namespace SDK
