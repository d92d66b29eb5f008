#pragma once

#include <cstddef>

namespace SDK {

/// Writes all `size` bytes of `data` to the open file `fd`, at its offset. 0, or -1 (errno) when
/// some of it may be missing. Thread-safe.
int WriteAll(int fd, const void* data, std::size_t size);

}  // namespace SDK
