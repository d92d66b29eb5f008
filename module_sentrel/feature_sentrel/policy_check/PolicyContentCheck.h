#pragma once

#include <json/value.h>

#include <string>

#include "feature_sentrel/policy_check/PolicyFindings.h"
#include "feature_sentrel/schedule/WorkSchedule.h"

namespace Engine {

// The checks of a policy's "content" except its protected paths. `pointer` is the JSON pointer of
// `content`. Members of a wrong type count as missing, as they do for the module.

void CheckOsType(const Json::Value& content, const std::string& pointer, PolicyFindings& findings);

enum class RsyncSource { kRequired, kOptional };

/// The download of rsync for this host's processor and system.
void CheckRsyncSource(const Json::Value& content, const std::string& pointer, RsyncSource use,
                      PolicyFindings& findings);

/// "backup_type", "backup_addr", "backup_port".
void CheckRemoteBackup(const Json::Value& content, const std::string& pointer,
                       PolicyFindings& findings);

/// "distime_enable", "disable_timerange", "disable_week". `earlier` is what the policies so far
/// have disabled.
void CheckSchedule(const Json::Value& content, const std::string& pointer,
                   const WorkSchedule& earlier, PolicyFindings& findings);

/// "backupserver_ip", "backupserver_port", "backupserver_path".
void CheckReceivingSide(const Json::Value& content, const std::string& pointer,
                        PolicyFindings& findings);

/// Checks only whether "backupserver_path" is safe from other users.
void CheckReceivingPlace(const Json::Value& content, const std::string& pointer,
                         PolicyFindings& findings);

}  // namespace Engine
