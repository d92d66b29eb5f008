#pragma once

namespace Engine {

/// Values of a policy's "backup_type" with a meaning of their own. With any other value, only the
/// local backup copy is made.
enum BackupType : int { kRemoteOnly = 1, kLocalAndRemote = 2, kRemoteByOthers = 3 };

/// This module makes the local backup copies.
inline bool MakesLocalCopies(int backup_type) {
    return backup_type != kRemoteOnly && backup_type != kRemoteByOthers;
}

}  // namespace Engine
