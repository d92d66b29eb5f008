#include "base/ServiceLog.h"

#include <sdk/text/Printable.h>
#include <unistd.h>

namespace Collector {

void Log(Severity severity, const std::string& text) {
    std::string line = "<" + std::to_string(static_cast<int>(severity)) + ">";
    line += SDK::Printable(text) + "\n";
    // Nobody can be told that standard error is closed.
    const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    static_cast<void>(written);
}

}  // namespace Collector
