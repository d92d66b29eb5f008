#pragma once

#include <string>
#include <vector>

namespace SDK {

/// The words of a command line that mean the same with and without a shell; empty when a shell is
/// needed, or may be. Conservative: only plain words and double-quoted ones, and a program that is
/// named with a "/" (any other name may be one that the shell itself knows). Any thread.
std::vector<std::string> SplitPlainCommand(const std::string& command);

}  // namespace SDK
