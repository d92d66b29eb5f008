#include "ctl/client/Input.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "common/ControlProtocol.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr std::size_t kReadBytes = 64 * 1024;

bool ReadAll(int fd, const std::string& name, std::string& text, std::string& error) {
    std::array<char, kReadBytes> buffer{};
    while (true) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            error = name + " cannot be read: " + std::strerror(errno) + ".";
            return false;
        }
        if (count == 0) return true;
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (text.size() > Agent::kMaxBodyBytes) {
            error = name + " is larger than the " +
                    std::to_string(Agent::kMaxBodyBytes / (1024 * 1024)) +
                    " MiB that the agent takes.";
            return false;
        }
    }
}

}  // namespace

bool ReadInput(const std::string& path, std::string& text, std::string& error) {
    if (path == "-") return ReadAll(STDIN_FILENO, "Standard input", text, error);
    const std::string name = "The file " + Printable(path);
    const SDK::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        error = name + " cannot be read: " + std::strerror(errno) + ".";
        return false;
    }
    return ReadAll(file.Get(), name, text, error);
}

}  // namespace Ctl
