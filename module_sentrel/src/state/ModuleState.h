#pragma once

#include "baseline/OperatorRequests.h"
#include "baseline/RuleBaselines.h"
#include "deploy/Deploys.h"
#include "deploy/Pauses.h"
#include "feature_sentrel/schedule/ScheduleStatus.h"
#include "places/ReleaseLinks.h"
#include "places/RuleAnchors.h"
#include "places/TrustedPlaces.h"
#include "progress/BackupProgress.h"
#include "rsync/RsyncLauncher.h"
#include "shield/Shield.h"
#include "status/BackUpServerStatus.h"
#include "status/SentrelStatus.h"

namespace Engine {

/// What the module's tasks, policies and queries share beside the settings (SentrelUtils). Owned by
/// the module, which hands it to its tasks by reference and outlives them. Each member is
/// thread-safe.
struct ModuleState {
    RuleAnchors anchors;
    TrustedPlaces places;
    ReleaseLinks releases;
    BackupProgress progress;
    RuleBaselines baselines;
    OperatorRequests requests;
    Deploys deploys;
    Pauses pauses;
    Shield shield;
    SentrelStatus status;
    BackUpServerStatus backup_server;
    ScheduleStatus schedule;
    RsyncLauncher launcher{anchors, progress, [this](const AnchoredRule& rule) {
                               return baselines.Replaced(rule).OpenRun();
                           }};
};

}  // namespace Engine
