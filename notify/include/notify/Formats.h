#pragma once

#include <json/value.h>

#include <string>

#include "notify/Message.h"

namespace Notify {

// Names in alarms are hostile: nothing here lets them end a line, a field or a header, or hide
// other text. No format has the content of a page. Stateless and thread-safe.

/// "5 changes in /srv/www/: 3 restored, 2 removal failed".
std::string Headline(const Message& message);

/// A whole mail with its header, in lines that end in "\n".
std::string FormatMail(const Message& message, const std::vector<std::string>& to,
                       const std::string& from);

/// The document of a webhook; see docs/notifications.md.
Json::Value ToJson(const Message& message);

// One report each. Empty when it is no alarm.

/// RFC 5424 with structured data.
std::string FormatSyslog(const Origin& origin, const Json::Value& report);

/// Fields in the journal's own protocol.
std::string FormatJournal(const Origin& origin, const Json::Value& report);

/// An OCSF event "File System Activity" in one line.
std::string FormatOcsf(const Origin& origin, const Json::Value& report);

}  // namespace Notify
