#pragma once

namespace Ctl {

/// The program: parses the command line and runs the command; the exit code. Nothing is thrown.
int Main(int argc, const char* const* argv);

}  // namespace Ctl
