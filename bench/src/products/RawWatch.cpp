#include "products/RawWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>

#include "base/RawWalk.h"

namespace Bench {

std::string RawWatch::Name() const {
    return threads_ == 1 ? "raw walk and watch" : "raw, two threads";
}

bool RawWatch::Start(const Site& site, const ProductSettings& settings) {
    const std::string output = site.scratch + "/raw.out";
    Command command;
    command.arguments = {machine_.self, "raw", site.live, std::to_string(threads_)};
    command.environment = PlainEnvironment(machine_);
    command.output = output;
    main_ = Child::Start(command);
    const bool ready = WaitUntil(settings.deadline, microseconds(500),
                                 [&] { return !Runs() || !ReadFile(output).empty(); });
    if (!ready || !Runs()) return Fail("the walk did not end");
    Ready(Clock::now());
    ready_ms_ = std::stod(ReadFile(output));  // measured by the process, without its start
    return true;
}

int RunRawWatch(const std::string& root, int threads) {
    const auto start = Clock::now();
    const int inotify = ::inotify_init1(IN_CLOEXEC);
    if (inotify < 0) return 1;
    RawWalk(inotify, root, threads);
    const std::string text = std::to_string(MsSince(start)) + "\n";
    if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) return 1;
    std::array<char, 65536> buffer;
    while (::read(inotify, buffer.data(), buffer.size()) > 0) continue;
    return 1;
}

}  // namespace Bench
