// A pipe that replaces a file just before rsync opens it for reading would block rsync, and all
// restores, until somebody writes to it. In the agent's rsync, opening for reading therefore never
// blocks; such a pipe reads as empty. Files behave as before.
//
// Owns nothing. Thread-safe.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

namespace {

int Open(int directory, const char* path, int flags, mode_t mode) {
    if ((flags & O_ACCMODE) == O_RDONLY && (flags & O_PATH) == 0) flags |= O_NONBLOCK;
    return static_cast<int>(::syscall(SYS_openat, directory, path, flags, mode));
}

bool TakesMode(int flags) {
    return (flags & (O_CREAT | __O_TMPFILE)) != 0;
}

}  // namespace

// The names are the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier)

// The names of open and openat where the compiler checks their arguments.
extern "C" int __open_2(const char* path, int flags) {
    return Open(AT_FDCWD, path, flags, 0);
}

extern "C" int __openat_2(int directory, const char* path, int flags) {
    return Open(directory, path, flags, 0);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = TakesMode(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Open(AT_FDCWD, path, flags, mode);
}

extern "C" int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = TakesMode(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Open(directory, path, flags, mode);
}

// The same for programs with large-file support.
extern "C" int __open64_2(const char* path, int flags) __attribute__((alias("__open_2")));
extern "C" int __openat64_2(int directory, const char* path, int flags)
    __attribute__((alias("__openat_2")));
extern "C" int open64(const char* path, int flags, ...) __attribute__((alias("open")));
extern "C" int openat64(int directory, const char* path, int flags, ...)
    __attribute__((alias("openat")));

// NOLINTEND(bugprone-reserved-identifier)
