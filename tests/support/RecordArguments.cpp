// A stand-in program: appends its arguments, each followed by a NUL, and a newline to the file
// "<its own name>.calls".
#include <fcntl.h>
#include <unistd.h>

#include <string>

int main(int count, char** arguments) {
    std::string record;
    for (int at = 0; at < count; ++at) record.append(arguments[at]).push_back('\0');
    record += '\n';
    const std::string file = std::string(arguments[0]) + ".calls";
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const ssize_t written = ::write(fd, record.data(), record.size());
    return written == static_cast<ssize_t>(record.size()) ? 0 : 1;
}
