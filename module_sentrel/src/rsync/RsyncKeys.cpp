#include "rsync/RsyncKeys.h"

#include <sdk/host/SystemUtils.h>

namespace Engine {

RsyncKeys RsyncKeys::OfThisHost() {
    SDK::SystemUtils* system = SDK::SystemUtils::GetInstance();
    return Of(system->GetOsArch(), system->GetOsName());
}

RsyncKeys RsyncKeys::Of(const std::string& architecture, unsigned int os_family) {
    const bool own_family = os_family <= SDK::SystemUtils::kOwnFamilyB;
    const std::string prefix = "rsync_" + architecture + (own_family ? "_tx" : "");
    return {prefix + "_url", prefix + "_hash"};
}

}  // namespace Engine
