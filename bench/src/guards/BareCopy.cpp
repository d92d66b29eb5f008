// Starts cp itself. Must not look at the tree: the rows do.
#include "guards/BareCopy.h"

namespace Bench {

bool BareCopy::Start(const Site& site, const GuardSettings& /*settings*/) {
    site_ = site;
    return true;
}

std::optional<Clock::time_point> BareCopy::Told(const std::string& path) {
    Command command;
    command.arguments = {"/bin/cp", "-a", site_.good + "/" + path, site_.live + "/" + path};
    command.environment = PlainEnvironment(machine_);
    const auto began = Clock::now();
    main_ = Child::Start(command);
    return began;
}

void BareCopy::Settle() {
    main_.Wait(std::chrono::minutes(5));
    main_.Stop(milliseconds(0));
}

}  // namespace Bench
