#pragma once

#include <string>

namespace Ctl {

/// Reads the file at `path`, or standard input for "-". False with a sentence in `error` when it is
/// missing, unreadable, a directory, or larger than the agent accepts.
bool ReadInput(const std::string& path, std::string& text, std::string& error);

}  // namespace Ctl
