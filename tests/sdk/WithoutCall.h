#pragma once

#include <string>

namespace test {

/// A call that some kernels, file systems or containers do not carry out.
enum class Call { kNamelessFile, kLinkOfDescriptor, kExchange, kNoAtime, kCopyFileRange };

/// Calls `act` in a child process in which `call` fails with the errno that it has where it is
/// missing; what `act` returned, -1 when the child could not be made so.
int ActWithout(Call call, int (*act)(const std::string& argument), const std::string& argument);

}  // namespace test
