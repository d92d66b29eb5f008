#include "sdk/text/CryptoCodeUtils.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID() {
    // Making a generator reads the system's random numbers; one goes on with its own.
    thread_local Poco::UUIDGenerator generator;
    return generator.createRandom().toString();
}

}  // namespace SDK
