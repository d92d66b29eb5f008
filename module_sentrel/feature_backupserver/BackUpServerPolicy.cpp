// Reads backup-server policies and writes the daemon's configuration. It owns nothing: the settings
// are SentrelUtils'. It must not start the daemon (BackUpServerTask does). Framework thread.
#include "feature_backupserver/BackUpServerPolicy.h"

#include <framework/ConfigManager.h>
#include <json/value.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/net/IpUtils.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <vector>

#include "base/ModuleLogger.h"
#include "base/RsyncPaths.h"
#include "rsync/RsyncKeys.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

using SDK::JsonUtils;

constexpr mode_t kReceiveDirMode = 0700;

/// The parameters of the whole daemon.
std::string GlobalConf(const SentrelUtils& settings) {
    const std::string& log_dir =
        Framework::ConfigManager::GetInstance().GetLoggerConfig().directory;
    return "\t# Distributed under the terms of the GNU General Public License v2\n"
           "\t# Minimal configuration file for rsync daemon\n"
           "\t# See rsync(1) and rsyncd.conf(5) man pages for help\n"
           "\tpid file = " +
           RsyncPaths::DaemonPidFile(settings.install_path) +
           "\n"
           "\tport = " +
           std::to_string(settings.backupserver_port) +
           "\n"
           "\taddress = " +
           settings.backupserver_ip +
           "\n"
           "\tuid = root\n"
           "\tgid = root\n"
           "\tuse chroot = yes\n"
           "\tread only = no\n"
           "\t#limit access to private LANs\n"
           "\thosts allow=0.0.0.0/0\n"
           "\thosts deny=*\n"
           "\tmax connections = 50\n"
           "\t#This will give you a separate log file\n"
           "\tlog file = " +
           RsyncPaths::DaemonLog(log_dir) +
           "\n"
           "\ttransfer logging = yes\n"
           "\tlog format = %t %a %m %f %b\n"
           "\ttimeout = 300\n";
}

/// The module that agents push their copies to.
std::string SectionConf(const SentrelUtils& settings) {
    return "[morvane_agent]\n"
           "\tpath = " +
           settings.backupserver_path +
           "\n"
           "\tlist = yes\n"
           "\tignore errors\n"
           "\tauth users = morvane_agent\n"
           "\tsecrets file = " +
           RsyncPaths::Secrets(settings.install_path, "server") +
           "\n"
           "\tcomment = This is morvane_agent home data\n";
}

/// Every line but the section's begins with a tab; an empty line ends the text.
std::string DaemonConf(const SentrelUtils& settings) {
    return GlobalConf(settings) + SectionConf(settings) + "\n";
}

}  // namespace

BackUpServerPolicy::BackUpServerPolicy(const std::string& name) : Framework::FeaturePolicy(name) {}

bool BackUpServerPolicy::Parse(const std::string& text) {
    Json::Value root;
    Json::Value content;
    if (JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0 ||
        !JsonUtils::GetSubobjectValue(root, "content", content)) {
        return false;
    }
    SentrelUtils* utils = SentrelUtils::GetInstance();
    utils->backupserver_port = JsonUtils::GetIntValue(content, "backupserver_port", 0);
    utils->backupserver_path = JsonUtils::GetStringValue(content, "backupserver_path", "");
    utils->backupserver_ip = JsonUtils::GetStringValue(content, "backupserver_ip", "");
    SDK::PathUtils::GetInstallationPath(utils->install_path);
    if (utils->backupserver_port == 0 || utils->backupserver_path.empty() ||
        utils->backupserver_ip.empty()) {
        return false;
    }
    const RsyncKeys keys = RsyncKeys::OfThisHost();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "rsync key : %s : %s", keys.url, keys.hash);
    utils->rsync_url = JsonUtils::GetStringValue(content, keys.url.c_str(), "");
    utils->rsync_hash = JsonUtils::GetStringValue(content, keys.hash.c_str(), "");
    if (!utils->DoStopRsyncDeamon()) return false;
    return WriteRsyncConf();
}

bool BackUpServerPolicy::GetIpExist() {
    std::vector<std::string> addresses;
    SDK::IpUtils::GetLocalIpList(addresses, true);
    return std::find(addresses.begin(), addresses.end(),
                     SentrelUtils::GetInstance()->backupserver_ip) != addresses.end();
}

bool BackUpServerPolicy::WriteRsyncConf() {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::string conf_path = RsyncPaths::DaemonConf(utils->install_path);
    SDK::FileUtils::TalDeleteFile(conf_path);
    if (!GetIpExist()) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "backupserver ip[%s] not exist.",
                utils->backupserver_ip);
        return false;
    }
    if (!SDK::DirUtils::IsDir(utils->backupserver_path)) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "backupserver path[%s] not exist.",
                utils->backupserver_path);
        if (SDK::DirUtils::MakeDirs(utils->backupserver_path, kReceiveDirMode) != 0) return false;
    }
    const std::string conf = DaemonConf(*utils);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "all conf:%s", conf);
    if (SDK::FileUtils::WriteFile(conf_path, conf, false) != 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "rsyslog write [%s] failed.", conf_path);
        return false;
    }
    return true;
}

BackUpServerTaskPolicy::BackUpServerTaskPolicy(const std::string& name)
    : Framework::TaskPolicy(name) {}

bool BackUpServerTaskPolicy::Parse(const std::string&) {
    return true;
}

}  // namespace Engine
