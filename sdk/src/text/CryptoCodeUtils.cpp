#include "sdk/text/CryptoCodeUtils.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID() {
    // A new generator reads the system's random numbers; an existing one does not.
    thread_local Poco::UUIDGenerator generator;
    return generator.createRandom().toString();
}

}  // namespace SDK
