#pragma once

namespace Ctl {

/// The program: parses the command line, runs the command and returns the exit code. Throws
/// nothing.
int Main(int argc, const char* const* argv);

}  // namespace Ctl
