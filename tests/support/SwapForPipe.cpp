// A test preloads this library into rsync. When rsync opens the file whose full path is in
// SENTREL_SWAP for reading, the library first replaces the file by a pipe. An attacker who hits the
// time between rsync's stat and open can do the same.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <string>

namespace {

std::string FullPath(int directory, const std::string& path) {
    if (!path.empty() && path.front() == '/') return path;
    const std::string link = directory == AT_FDCWD ? std::string("/proc/self/cwd")
                                                   : "/proc/self/fd/" + std::to_string(directory);
    char target[PATH_MAX] = "";
    const ssize_t length = ::readlink(link.c_str(), target, sizeof(target));
    return std::string(target, length < 0 ? 0 : static_cast<std::size_t>(length)) + "/" + path;
}

int Open(int directory, const char* path, int flags, mode_t mode) {
    const char* swap = ::getenv("SENTREL_SWAP");
    if (swap != nullptr && (flags & (O_ACCMODE | O_PATH | O_DIRECTORY)) == O_RDONLY &&
        FullPath(directory, path) == swap && ::unlink(swap) == 0) {
        ::mkfifo(swap, 0600);
    }
    return static_cast<int>(::syscall(SYS_openat, directory, path, flags, mode));
}

}  // namespace

extern "C" int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Open(directory, path, flags, mode);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Open(AT_FDCWD, path, flags, mode);
}

extern "C" int __open_2(const char* path, int flags) {
    return Open(AT_FDCWD, path, flags, 0);
}

extern "C" int __openat_2(int directory, const char* path, int flags) {
    return Open(directory, path, flags, 0);
}
