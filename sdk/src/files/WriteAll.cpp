#include "sdk/files/WriteAll.h"

#include <unistd.h>

#include <cerrno>

namespace SDK {

int WriteAll(int fd, const void* data, std::size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(fd, next, size);
        if (written < 0 && errno == EINTR) continue;
        if (written == 0) errno = ENOSPC;
        if (written <= 0) return -1;
        next += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

}  // namespace SDK
