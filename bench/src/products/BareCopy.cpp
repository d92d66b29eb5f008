// Starts cp. Must not check the tree: the rows do.
#include "products/BareCopy.h"

namespace Bench {

bool BareCopy::Start(const Site& site, const ProductSettings& /*settings*/) {
    site_ = site;
    return true;
}

std::optional<Clock::time_point> BareCopy::StartRestore(const std::string& path) {
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
