#pragma once

#include <Poco/Logger.h>

#include <cstddef>
#include <string>

namespace SDK {

/// The agent's log: one root logger and one logger per module. Thread-safe.
class LoggerUtils {
  public:
    struct Settings {
        std::string directory;  ///< made when missing
        std::string file_name = "agent.log";
        std::string level = "information";  ///< a Poco level name
        std::size_t rotate_bytes = 10 * 1024 * 1024;
        int keep_files = 5;
        bool console = false;  ///< also to standard error
    };

    static LoggerUtils* GetInstance();

    /// Sends all loggers to rotated files through a bounded queue with its own thread. Logging
    /// never blocks; a full queue drops records and counts them. False when the directory cannot be
    /// made or written; `error` says why.
    bool Configure(const Settings& settings, std::string& error);

    /// Writes the queued records and closes the files. Loggers stay valid and discard records.
    void Shutdown();

    /// Records dropped since the start, because the queue was full or the file could not be
    /// written. The log itself reports "dropped N log records" as soon as it can.
    unsigned long DroppedRecords() const;

    /// Never null; discards records until Configure.
    Poco::Logger* GetRootLogger();

    /// The logger of that name, a child of the root. `level` 0 takes the root's, others are Poco's.
    Poco::Logger* GetModuleLogger(const std::string& name, int level);

  private:
    LoggerUtils() = default;
};

}  // namespace SDK
