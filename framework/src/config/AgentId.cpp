// Creates the agent's identity once: a UUID in data/agent_id. An existing file that is unusable is
// an error and is never replaced, since a new identity would make this host another agent.
#include <Poco/UUID.h>
#include <framework/ConfigManager.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/CryptoCodeUtils.h>
#include <sdk/text/StrUtils.h>

#include <cerrno>
#include <cstring>

namespace Framework {

namespace {

constexpr long kMostBytes = 128;
constexpr std::size_t kUuidLength = 36;

bool MakeAgentId(const std::string& directory, const std::string& file, std::string& id,
                 std::string& error) {
    id = SDK::CryptoCodeUtils::GenerateUUID();
    if (SDK::DirUtils::MakeDirs(directory, 0700) == 0 &&
        SDK::FileUtils::WriteFile(file, id + "\n", false) == 0) {
        return true;
    }
    error = "cannot write the agent id to " + file + ": " + std::strerror(errno);
    return false;
}

bool IsUuid(const std::string& text) {
    Poco::UUID uuid;
    return text.size() == kUuidLength && uuid.tryParse(text);
}

}  // namespace

bool ConfigManager::EnsureAgentId(std::string& error) {
    error.clear();
    const std::string directory = SDK::PathUtils::GetInstallationPath() + "data";
    const std::string file = directory + "/agent_id";
    std::string id;
    if (SDK::FileUtils::ReadFile(file, id, kMostBytes) != 0) {
        if (errno != ENOENT) {
            error = "cannot read the agent id from " + file + ": " + std::strerror(errno);
            return false;
        }
        if (!MakeAgentId(directory, file, id, error)) return false;
    }
    SDK::StrUtils::Trim(id);
    if (!IsUuid(id)) {
        error = file + " holds no agent id (a UUID): put the old one back, or remove the file to " +
                "make this host a new agent";
        return false;
    }
    SetAgentId(id);
    return true;
}

std::string ConfigManager::GetAgentId() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return agent_id_;
}

void ConfigManager::SetAgentId(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    agent_id_ = id;
}

}  // namespace Framework
