#pragma once

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <string>
#include <utility>

namespace SDK {

/// The base name of a source file's path: "SentrelPolicy.cpp" for ".../SentrelPolicy.cpp". Points
/// into `file`, which must be a literal, as log records keep only the pointer.
const char* SourceBaseName(const char* file);

/// Formats with Poco::format and logs. Does nothing when the logger is null or filters the
/// priority. Never throws: a record that cannot be formatted or written is dropped. Use SDK_LOG.
template <typename... Args>
void LogFormatted(Poco::Logger* logger, Poco::Message::Priority priority, const char* file,
                  int line, const char* format, Args&&... args) {
    if (logger == nullptr || !logger->is(static_cast<int>(priority))) return;
    try {
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = format;
        } else {
            text = Poco::format(std::string(format), std::forward<Args>(args)...);
        }
        logger->log(Poco::Message(logger->name(), text, priority, SourceBaseName(file), line));
    } catch (...) {
    }
}

}  // namespace SDK

/// The source file that a record names. A class with several sources defines it before any include
/// as its main source, a literal: operators search for records by that name.
#ifndef SDK_LOG_FILE
#define SDK_LOG_FILE __FILE__
#endif

/// SDK_LOG(logger, PRIO_ERROR, "text %s", argument): the guarded log statement of the whole agent.
#define SDK_LOG(logger, priority, ...) \
    ::SDK::LogFormatted((logger), Poco::Message::priority, SDK_LOG_FILE, __LINE__, __VA_ARGS__)
