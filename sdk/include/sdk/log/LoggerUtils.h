#pragma once

#include <Poco/Logger.h>

#include <cstddef>
#include <string>

namespace SDK {

/// The agent's log: one root logger and one logger per module. Any thread.
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

    /// Sends all loggers to rotated files, through a bounded queue of its own thread: logging never
    /// blocks the caller, and what is dropped when the queue is full is counted. False when the
    /// directory cannot be made or written; `error` says why.
    bool Configure(const Settings& settings, std::string& error);

    /// Writes out what is queued and closes the files; loggers stay valid and are silent.
    void Shutdown();

    /// Records dropped because the queue was full or the file could not be written, since the
    /// start. The log itself says "dropped N log records" as soon as it can again.
    unsigned long DroppedRecords() const;

    /// Never null, but quiet until Configure.
    Poco::Logger* GetRootLogger();

    /// The logger of that name, a child of the root. `level` 0 takes the root's, others are Poco's.
    Poco::Logger* GetModuleLogger(const std::string& name, int level);

  private:
    LoggerUtils() = default;
};

}  // namespace SDK
