#pragma once

#include <sdk/files/FileDescriptor.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "store/DatabaseFiles.h"
#include "store/ErrorThrottle.h"

namespace Engine {

/// The alarm file for log shippers, one JSON object per line; mode 0640. Owned by the module.
/// Thread-safe.
///
/// Rotated by size: alarms.jsonl.1 is the newest old file. Opened again when another process
/// removed or renamed it. Lines are complete: a part that a full disk or a crash left is removed.
class AlarmLog {
  public:
    /// `keep_files`: number of old files, at least one.
    AlarmLog(std::string path, std::int64_t rotate_bytes, int keep_files);

    /// Appends the alarm with one write(2), without a sync. False when that fails; failures are
    /// counted and logged at most once a minute.
    bool Append(const std::string& body);
    /// The same for a body that is one valid line already.
    bool AppendLine(const std::string& body);

    std::uint64_t FailedLines();

  private:
    bool AppendEnded(const std::string& line);
    bool Write(const std::string& line, std::string& error);
    bool IsStillThere() const;
    bool Open(std::string& error);
    void DropTornLine();
    void Rotate();

    const std::string path_;
    const std::int64_t rotate_bytes_;
    const int keep_files_;

    std::mutex mutex_;  ///< guards what follows
    SDK::FileDescriptor file_;
    FileIdentity identity_;
    std::int64_t size_ = 0;
    ErrorThrottle throttle_;
    ErrorThrottle rotate_throttle_;
    std::uint64_t failed_ = 0;
};

}  // namespace Engine
