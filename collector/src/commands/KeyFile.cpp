#include "commands/KeyFile.h"

#include <sdk/files/FileUtils.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace Collector {

namespace {

constexpr long kMostKeyBytes = 16 * 1024;

}  // namespace

std::unique_ptr<SDK::SigningKey> ReadPrivateKey(const std::string& file, std::string& error) {
    std::string pem;
    if (SDK::FileUtils::ReadFile(file, pem, kMostKeyBytes) != 0) {
        error = "cannot read " + file + ": " + std::strerror(errno);
        return nullptr;
    }
    auto key = SDK::SigningKey::Read(pem);
    if (key != nullptr && key->CanSign()) return key;
    error = file + " holds no private Ed25519 key";
    return nullptr;
}

std::int64_t NumberNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

Fleet::Audience AudienceOf(const Arguments& arguments) {
    if (arguments.all_hosts) return {"*"};
    Fleet::Audience audience = arguments.hosts;
    for (const std::string& group : arguments.groups) audience.push_back("@" + group);
    return audience;
}

}  // namespace Collector
