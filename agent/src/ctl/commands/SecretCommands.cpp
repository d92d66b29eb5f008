#include <sdk/text/JsonUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/Secret.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr const char* kServerTasklet = "sentrel_getpasswd_10001";
constexpr const char* kClientTasklet = "sentrel_getpasswd_10002";

}  // namespace

int SetSecret(const ControlClient& client, const std::string& role) {
    std::string password;
    std::string error;
    if (!ReadPassword("Password of the backup " + role + ": ", password, error)) {
        std::cerr << error << std::endl;
        return kExitFailed;
    }
    Json::Value request;
    request["passwd"] = password;
    std::string body = SDK::JsonUtils::JsonToString(request);
    EraseSecret(password);
    int result = 0;
    const int exit_code =
        CallTasklet(client, role == "server" ? kServerTasklet : kClientTasklet, body, result);
    EraseSecret(body);
    if (exit_code != kExitOk) return exit_code;
    if (result != 0) {
        std::cerr << "The agent could not write the password (result " << result
                  << "); its log says why." << std::endl;
        return kExitFailed;
    }
    std::cout << "password of the backup " << Printable(role) << " set" << std::endl;
    return kExitOk;
}

}  // namespace Ctl
