// Writes the passwords that the agent receives to the files that rsync reads. It must not keep or
// log a password. Framework thread.
#define SDK_LOG_FILE "SentrelModule.cpp"

#include <json/value.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include "SentrelModule.h"
#include "base/ModuleLogger.h"
#include "base/RsyncPaths.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr mode_t kWritable = 0700;
constexpr mode_t kLockedDown = 0500;

/// 0 with an empty `passwd` when the request holds none; -1 when it is no JSON.
int ReadPassword(const std::string& request, std::string& passwd) {
    if (request.empty()) return -1;
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(request.c_str(), request.size(), root) != 0) return -1;
    passwd = SDK::JsonUtils::GetStringValue(root, "passwd", "");
    return 0;
}

/// Passwords may come before the first policy sets the installation path.
std::string InstallPath() {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    return utils->install_path.empty() ? SDK::PathUtils::GetInstallationPath()
                                       : utils->install_path;
}

int WriteSecret(const std::string& path, const std::string& content) {
    [[maybe_unused]] int ignored = ::chmod(path.c_str(), kWritable);
    const int result = SDK::FileUtils::WriteFile(path, content, false);
    if (result != 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "rsyslog write [%s] failed.", path);
        return result;
    }
    ignored = ::chmod(path.c_str(), kLockedDown);
    ignored = ::chown(path.c_str(), 0, 0);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "rsyslog write pass [%s] ok.", path);
    return 0;
}

}  // namespace

int SentrelModule::GetPasswdServer(const std::string& request) {
    std::string passwd;
    const int result = ReadPassword(request, passwd);
    if (result != 0 || passwd.empty()) return result;
    return WriteSecret(RsyncPaths::Secrets(InstallPath(), "server"), "morvane_agent:" + passwd);
}

int SentrelModule::GetPasswdClient(const std::string& request) {
    std::string passwd;
    const int result = ReadPassword(request, passwd);
    if (result != 0 || passwd.empty()) return result;
    return WriteSecret(RsyncPaths::Secrets(InstallPath(), "client"), passwd);
}

}  // namespace Engine
