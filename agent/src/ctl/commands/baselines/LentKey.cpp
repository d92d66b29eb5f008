// Hands over a private key that is kept elsewhere; keeps none. It must not send it in a command
// line or print it. Runs on the main thread.
#include <Poco/Net/HTTPRequest.h>
#include <sdk/text/SigningKey.h>

#include <cstring>
#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/client/Input.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr int kTimeoutS = 30;

int Send(const ControlClient& client, const std::string& pem) {
    const Answer answer =
        client.Send(Poco::Net::HTTPRequest::HTTP_POST, "/v1/baseline/key", pem, kTimeoutS);
    if (answer.kind == Answer::Kind::kAnswered && answer.status == 200) return kExitOk;
    const int code = PrintFailure(answer);
    const bool is_refused =
        answer.kind == Answer::Kind::kAnswered && answer.status >= 400 && answer.status < 500;
    return is_refused ? kExitRejected : code;
}

}  // namespace

int LendKey(const ControlClient& client, const std::string& key) {
    if (key.empty()) return kExitOk;
    std::string pem;
    std::string error;
    int code = kExitFailed;
    const bool is_read = ReadInput(key, pem, error);
    const auto parsed = is_read ? SDK::SigningKey::Read(pem) : nullptr;
    if (!is_read) {
        std::cerr << error << std::endl;
    } else if (parsed == nullptr || !parsed->CanSign()) {
        std::cerr << "The file " << Printable(key)
                  << " holds no private Ed25519 key without a passphrase." << std::endl;
    } else {
        code = Send(client, pem);
    }
    ::explicit_bzero(pem.data(), pem.size());
    return code;
}

}  // namespace Ctl
