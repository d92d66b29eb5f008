// Looks whether an rsync daemon answers. It must not log in or copy anything.
#include "ctl/doctor/ServerChecks.h"

#include <Poco/Exception.h>
#include <Poco/Net/DNS.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <array>

#include "ctl/baselines/PolicyPaths.h"
#include "ctl/output/Terminal.h"
#include "ctl/remote/BackupServer.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr int kDefaultPort = 873;
constexpr int kSeconds = 5;
constexpr char kGreeting[] = "@RSYNCD:";

/// Why no rsync daemon answers; else empty.
std::string WhySilent(const Poco::Net::SocketAddress& address) {
    try {
        Poco::Net::StreamSocket socket;
        socket.connect(address, Poco::Timespan(kSeconds, 0));
        socket.setReceiveTimeout(Poco::Timespan(kSeconds, 0));
        std::array<char, sizeof(kGreeting)> buffer{};
        const int count = socket.receiveBytes(buffer.data(), sizeof(kGreeting) - 1);
        const std::string greeting(buffer.data(), static_cast<std::size_t>(std::max(count, 0)));
        return greeting == kGreeting ? "" : "what answers is no rsync daemon";
    } catch (const Poco::TimeoutException&) {
        return "no answer within " + std::to_string(kSeconds) + " seconds";
    } catch (const Poco::Exception& e) {
        return e.displayText();
    }
}

std::string WithoutBrackets(const std::string& address) {
    const bool has = address.size() > 2 && address.front() == '[' && address.back() == ']';
    return has ? address.substr(1, address.size() - 2) : address;
}

void CheckDaemon(const std::string& address, int port, Findings& findings) {
    const int number = port == 0 ? kDefaultPort : port;
    const std::string name = Printable(address) + " port " + std::to_string(number);
    try {
        const Poco::Net::IPAddress ip = Poco::Net::DNS::resolveOne(WithoutBrackets(address));
        const std::string silent =
            WhySilent(Poco::Net::SocketAddress(ip, static_cast<Poco::UInt16>(number)));
        if (silent.empty()) {
            findings.Ok("backup server", "an rsync daemon answers at " + name);
        } else {
            findings.Add("no_connection", name + ": " + Printable(silent));
        }
    } catch (const Poco::Exception& e) {
        findings.Add("no_name", "the name " + Printable(address) +
                                    " is not found: " + Printable(e.displayText()));
    }
}

void CheckPassword(const char* role, Findings& findings) {
    const std::string file =
        SDK::PathUtils::BelowInstallation(std::string("conf/rsync_") + role + ".secrets");
    if (::access(file.c_str(), R_OK) == 0) return;
    findings.Add("no_password", "there is no password of the backup " + std::string(role));
}

}  // namespace

void CheckBackupServer(Findings& findings) {
    if (const BackupServer server = KnownBackupServer()) {
        CheckPassword("client", findings);
        CheckDaemon(server.address, server.port, findings);
    }
    const Json::Value own = KeptPolicyContent("backupserver_feature");
    if (!own.isObject()) return;
    CheckPassword("server", findings);
    CheckDaemon(JsonUtils::GetStringValue(own, "backupserver_ip", ""),
                JsonUtils::GetIntValue(own, "backupserver_port", 0), findings);
}

}  // namespace Ctl
