#include "support/Fleet.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/text/JsonUtils.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <sstream>

#include "support/WaitFor.h"

namespace test {

namespace {

constexpr std::chrono::seconds kDeadline{20};
constexpr const char* kPassword = "a password of the tests";

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

int FreePort() {
    const SDK::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof(address);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (::bind(socket.Get(), any, size) != 0 || ::getsockname(socket.Get(), any, &size) != 0)
        return 0;
    return ntohs(address.sin_port);
}

void MustRun(const std::vector<std::string>& words) {
    const CommandResult result = RunWords(words);
    EXPECT_EQ(result.exit_code, 0) << words[0] << ": " << result.err;
}

constexpr const char* kCurve = "ec_paramgen_curve:prime256v1";

/// `file`.pem and `file`.key, signed by the CA of the directory.
void MakeCertificate(const TempDir& dir, const std::string& file, const std::string& name) {
    MustRun({"openssl", "req", "-newkey", "ec", "-pkeyopt", kCurve, "-nodes", "-subj",
             "/CN=" + name, "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
             dir.Path(file + ".key"), "-out", dir.Path(file + ".csr")});
    MustRun({"openssl", "x509", "-req", "-in", dir.Path(file + ".csr"), "-days", "2", "-CA",
             dir.Path("ca.pem"), "-CAkey", dir.Path("ca.key"), "-CAcreateserial",
             "-copy_extensions", "copy", "-out", dir.Path(file + ".pem")});
}

/// A CA and a certificate for 127.0.0.1.
void MakeCertificates(const TempDir& dir) {
    MustRun({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", kCurve, "-nodes", "-days", "2",
             "-subj", "/CN=test CA", "-keyout", dir.Path("ca.key"), "-out", dir.Path("ca.pem")});
    MakeCertificate(dir, "broker", "127.0.0.1");
}

void Replace(std::string& text, const std::string& from, const std::string& to) {
    EXPECT_NE(text.find(from), std::string::npos) << from;
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

}  // namespace

Broker::Broker(const std::vector<std::string>& agent_ids) : port_(FreePort()) {
    MakeCertificates(dir_);
    const std::string samples = std::string(SENTREL_SOURCE) + "/docs/fleet/";
    std::string conf = TempDir::Read(samples + "mosquitto.conf");
    Replace(conf, "/etc/mosquitto/sentrel/", dir_.Path(""));
    Replace(conf, "listener 8883", "listener " + std::to_string(port_) + " 127.0.0.1");
    dir_.Write("mosquitto.conf",
               "user root\npersistence true\npersistence_location " + dir_.Path("") + "\n" + conf);
    dir_.Write("acl", TempDir::Read(samples + "acl"));
    ::chmod(dir_.Path("acl").c_str(), 0600);
    dir_.Write("password", std::string(kPassword) + "\n");
    ::chmod(dir_.Path("password").c_str(), 0600);
    std::vector<std::string> users = agent_ids;
    users.insert(users.end(), {"collector", "operator"});
    std::string passwords;
    for (const std::string& user : users) passwords += user + ":" + kPassword + "\n";
    dir_.Write("passwords", passwords);
    ::chmod(dir_.Path("passwords").c_str(), 0600);
    MustRun({"mosquitto_passwd", "-U", dir_.Path("passwords")});
}

void Broker::UseCertificates(const std::vector<std::string>& users) {
    std::string conf = TempDir::Read(dir_.Path("mosquitto.conf"));
    Replace(conf, "\npassword_file ", "\n#password_file ");
    Replace(conf, "#require_certificate", "require_certificate");
    Replace(conf, "#use_identity_as_username", "use_identity_as_username");
    dir_.Write("mosquitto.conf", conf);
    for (const std::string& user : users) MakeCertificate(dir_, user, user);
    has_certificates_ = true;
}

bool Broker::Start() {
    process_.Start({"/usr/sbin/mosquitto", "-c", dir_.Path("mosquitto.conf")}, dir_.Path("out"));
    if (WaitFor([this] { return IsListening(); }, Scaled(kDeadline))) return true;
    ADD_FAILURE() << TempDir::Read(dir_.Path("out"));
    return false;
}

bool Broker::IsListening() const {
    const SDK::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = Loopback(port_);
    return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
           0;
}

Json::Value Broker::JsonOf(const std::string& user) const {
    Json::Value broker(Json::objectValue);
    broker["host"] = "127.0.0.1";
    broker["port"] = port_;
    broker["ca_file"] = dir_.Path("ca.pem");
    if (has_certificates_) {
        broker["cert_file"] = dir_.Path(user + ".pem");
        broker["key_file"] = dir_.Path(user + ".key");
        return broker;
    }
    broker["password_file"] = dir_.Path("password");
    broker["user"] = user;
    return broker;
}

Fleet::BrokerSettings Broker::SettingsOf(const std::string& user) const {
    Fleet::BrokerSettings settings;
    std::string error;
    EXPECT_TRUE(Fleet::ReadBrokerSettings(JsonOf(user), "", settings, error)) << error;
    return settings;
}

CollectorProcess::CollectorProcess(const Broker& broker, const Json::Value& database) {
    Json::Value config(Json::objectValue);
    config["broker"] = broker.JsonOf("collector");
    config["database"] = database.isNull() ? Json::Value(Database()) : database;
    dir_.Write("collector.json", SDK::JsonUtils::JsonToString(config));
}

bool CollectorProcess::Start() {
    process_.Start({std::string(SENTREL_STAGE) + "/bin/sentrel_collector", "run", "--config",
                    dir_.Path("collector.json")},
                   dir_.Path("out"));
    if (WaitFor([this] { return Status()["listening"].asBool(); }, Scaled(kDeadline))) return true;
    ADD_FAILURE() << TempDir::Read(dir_.Path("out")) << Run({"status"}).out << Run({"status"}).err;
    return false;
}

CommandResult CollectorProcess::Run(const std::vector<std::string>& words) const {
    std::vector<std::string> all{std::string(SENTREL_STAGE) + "/bin/sentrel_collector", "--config",
                                 dir_.Path("collector.json")};
    all.insert(all.end(), words.begin(), words.end());
    return RunWords(all);
}

Json::Value CollectorProcess::Status() const {
    const CommandResult result = Run({"status", "--json"});
    Json::Value status;
    SDK::JsonUtils::ParseJsonStr(result.out.data(), result.out.size(), status);
    status["exit_code"] = result.exit_code;
    return status;
}

std::vector<Json::Value> CollectorProcess::Lines(const std::vector<std::string>& words) const {
    std::istringstream text(Run(words).out);
    std::vector<Json::Value> lines;
    for (std::string line; std::getline(text, line);) {
        lines.emplace_back();
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), lines.back()), 0) << line;
    }
    return lines;
}

}  // namespace test
