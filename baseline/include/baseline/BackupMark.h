#pragma once

namespace Baseline {

/// In a backup path: the file with the identifier by which its copies are recognised.
constexpr char kBackupMark[] = ".morvane-backup-id";

}  // namespace Baseline
