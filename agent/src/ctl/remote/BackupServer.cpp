// Finds the backup server of this host. It must not talk to it.
#include "ctl/remote/BackupServer.h"

#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include "ctl/baselines/PolicyPaths.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr char kAgentId[] = "data/agent_id";
constexpr long kMostBytes = 128;
constexpr int kPushes = 2;  ///< the backup type with copies on a backup server
constexpr int kMostPort = 65535;

}  // namespace

BackupServer KnownBackupServer() {
    const Json::Value content = KeptPolicyContent("sentrel_feature");
    BackupServer server;
    if (JsonUtils::GetIntValue(content, "backup_type", 0) != kPushes) return server;
    server.address = JsonUtils::GetStringValue(content, "backup_addr", "");
    server.port = JsonUtils::GetIntValue(content, "backup_port", 0);
    if (server.port < 0 || server.port > kMostPort) server.port = 0;
    SDK::FileUtils::ReadFile(SDK::PathUtils::BelowInstallation(kAgentId), server.agent_id,
                             kMostBytes);
    SDK::StrUtils::Trim(server.agent_id);
    return server;
}

}  // namespace Ctl
