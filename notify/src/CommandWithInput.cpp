#include "CommandWithInput.h"

#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/commands/RunningCommand.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/text/Printable.h>
#include <sdk/text/StrUtils.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Notify {

using SDK::ExecuteCmdUtils;

namespace {

constexpr int kMsPerSecond = 1000;

/// A file in memory at its beginning: unlike a pipe it never makes the writer wait for the reader.
SDK::FileDescriptor InputFile(const std::string& input) {
    SDK::FileDescriptor file(::memfd_create("sentrel-input", MFD_CLOEXEC));
    for (std::size_t done = 0; file.IsOpen() && done < input.size();) {
        const ssize_t count = ::write(file.Get(), input.data() + done, input.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return {};
        done += static_cast<std::size_t>(count);
    }
    if (file.IsOpen()) ::lseek(file.Get(), 0, SEEK_SET);
    return file;
}

std::string Failure(int result, int exit_code, int timeout_ms) {
    switch (result) {
        case 0:
            return exit_code == 0 ? "" : SDK::StrUtils::Format("ended with code %d", exit_code);
        case ExecuteCmdUtils::kTimedOut:
            return SDK::StrUtils::Format("did not end within %d s", timeout_ms / kMsPerSecond);
        case ExecuteCmdUtils::kInterrupted:
            return "was interrupted";
        case ExecuteCmdUtils::kKilledBySignal:
            return "was ended by a signal";
        default:
            return "could not be started";
    }
}

}  // namespace

CommandResult RunWithInput(const std::vector<std::string>& words, const std::string& input,
                           int timeout_ms, std::size_t max_output) {
    CommandResult done;
    SDK::FileDescriptor file = InputFile(input);
    if (!file.IsOpen()) {
        done.error = std::string("gets no input: ") + std::strerror(errno);
        return done;
    }
    int exit_code = -1;
    SDK::RunningCommand command(words, timeout_ms, {}, std::move(file));
    const int result = command.Wait(exit_code, done.output, max_output);
    done.error = Failure(result, exit_code, timeout_ms);
    std::string said = done.output;
    SDK::StrUtils::Trim(said);
    if (!done.error.empty() && !said.empty()) done.error += ": " + SDK::Printable(said);
    return done;
}

}  // namespace Notify
