// Runs the mail system's program. It must not know what a message says (MailFormat does).

#include <sdk/files/PlaceTrust.h>

#include <utility>

#include "CommandWithInput.h"
#include "notify/Formats.h"
#include "notify/Senders.h"

namespace Notify {

namespace {

constexpr int kTimeoutMs = 30 * 1000;
constexpr std::size_t kMostOutput = 1024;

class MailSender : public MessageSender {
  public:
    explicit MailSender(Settings::Mail mail) : mail_(std::move(mail)) {}

    std::string Send(const Message& message) override {
        // The agent runs it as root.
        const std::string why = SDK::PlaceTrust::WhyWritable(mail_.sendmail);
        if (!why.empty()) return mail_.sendmail + " is not run: " + why;
        std::vector<std::string> words{mail_.sendmail, "-i"};  // a line "." does not end the mail
        if (!mail_.from.empty()) words.insert(words.end(), {"-f", mail_.from});
        words.emplace_back("--");
        words.insert(words.end(), mail_.to.begin(), mail_.to.end());
        const CommandResult result =
            RunWithInput(words, FormatMail(message, mail_.to, mail_.from), kTimeoutMs, kMostOutput);
        return result.error.empty() ? "" : mail_.sendmail + " " + result.error;
    }

  private:
    const Settings::Mail mail_;
};

}  // namespace

std::unique_ptr<MessageSender> MakeMailSender(const Settings::Mail& mail) {
    return std::make_unique<MailSender>(mail);
}

}  // namespace Notify
