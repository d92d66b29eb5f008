#pragma once

#include <sdk/files/FileDescriptor.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "store/DatabaseFiles.h"
#include "store/ErrorThrottle.h"

namespace Engine {

/// The file of alarms for log shippers, one JSON object a line; mode 0640. Any thread; owned by the
/// module.
///
/// Rotated by size: alarms.jsonl.1 is the newest of the old files. Opened anew when somebody else
/// removed or renamed it. Lines are whole: what a full disk or a crash cut short is taken back.
class AlarmLog {
  public:
    /// `keep_files` old files are kept, at least one.
    AlarmLog(std::string path, std::int64_t rotate_bytes, int keep_files);

    /// Appends the alarm with one write(2), not synced. False when it is not written; counted, and
    /// logged now and then.
    bool Append(const std::string& body);
    /// The same for a body that is fit for a line as it is.
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
    ErrorThrottle pacer_;
    ErrorThrottle rotate_pacer_;
    std::uint64_t failed_ = 0;
};

}  // namespace Engine
