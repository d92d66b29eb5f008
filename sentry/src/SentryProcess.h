#pragma once

namespace Sentry {

/// The program: a watchdog, and the guard as its child. Exit codes: 0 stopped, 1 cannot start,
/// 2 wrong command line, 3 the guard ended or did not answer.
int Main(int argc, const char* const* argv);

}  // namespace Sentry
