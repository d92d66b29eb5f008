#pragma once

#include <memory>
#include <string>
#include <vector>

#include "notify/Message.h"
#include "notify/Settings.h"

namespace Notify {

// Senders block for some ten seconds at most, and end early when the calling thread's
// SDK::CommandInterrupter is interrupted. Each answers an empty text when the receiver has taken
// what was sent, else why not, without secrets. Not thread-safe.

/// Sends messages for people.
class MessageSender {
  public:
    virtual ~MessageSender() = default;
    virtual std::string Send(const Message& message) = 0;
};

/// Hands the mail to the program `sendmail`, without a shell.
std::unique_ptr<MessageSender> MakeMailSender(const Settings::Mail& mail);

/// Posts the JSON document; signs it when there is a secret. Any answer but 2xx is a failure, also
/// a redirect.
std::unique_ptr<MessageSender> MakeWebhookSender(const Settings::Webhook& webhook);

/// Sends records for programs, each a text.
class RecordSender {
  public:
    virtual ~RecordSender() = default;
    virtual std::string Send(const std::vector<std::string>& records) = 0;
};

/// One datagram for each record to the Unix socket `path`.
std::unique_ptr<RecordSender> MakeSocketSender(const std::string& path);

/// Appends lines to the file `path`, mode 0640. At 16 MiB the file becomes `path`.1.
std::unique_ptr<RecordSender> MakeFileSender(const std::string& path);

/// Asks for the URL. Empty for an answer 2xx.
std::string SendHeartbeat(const Settings::Heartbeat& heartbeat);

}  // namespace Notify
