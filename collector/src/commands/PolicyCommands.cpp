// Signing needs no broker, and publishing needs no private key: the key can stay on another
// machine.
#include <fcntl.h>
#include <fleet/BrokerClient.h>
#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/SigningKey.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "centre/Delivery.h"
#include "commands/Commands.h"
#include "commands/DatabaseAccess.h"
#include "commands/KeyFile.h"

namespace Collector {

namespace {

constexpr std::int64_t kPublishMs = 20'000;
constexpr std::chrono::milliseconds kStep{100};
constexpr std::size_t kMostUnacknowledged = 100;

/// A new file of that mode; an existing one is never replaced.
bool WriteNew(const std::string& path, const std::string& text, mode_t mode) {
    const SDK::FileDescriptor file(
        ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode));
    return file.IsOpen() &&
           ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// The hosts to publish to: those of the document, and of groups those that the database knows.
bool Targets(const Arguments& arguments, const Delivery& delivery,
             std::vector<std::string>& hosts) {
    const bool is_list =
        std::all_of(delivery.hosts.begin(), delivery.hosts.end(), Fleet::IsAgentId);
    std::vector<HostRecord> known;
    FleetStore store;
    if (!is_list && (!OpenDatabase(arguments, store) || !store.ReadHosts(known))) return false;
    hosts = TargetsOf(delivery.hosts, known, true);
    if (hosts.empty()) Fail("the database knows no such host");
    return !hosts.empty();
}

/// Publishes to all, and waits until the broker has them. False with `error`.
bool PublishAll(Fleet::BrokerClient& broker, const Delivery& delivery,
                const std::vector<std::string>& hosts, std::string& error) {
    const std::int64_t now_s = SDK::TimeUtils::GetCurrentTimestampS();
    const std::int64_t end_ms = SDK::TimeUtils::GetMonotonicMs() + kPublishMs;
    std::size_t sent = 0;
    while (sent < hosts.size() || broker.Unacknowledged() > 0) {
        if (!broker.Step(kStep, -1, error)) return false;
        while (broker.IsConnected() && sent < hosts.size() &&
               broker.Unacknowledged() < kMostUnacknowledged) {
            if (!broker.Publish(delivery.MessageTo(hosts[sent], now_s))) break;
            ++sent;
        }
        if (SDK::TimeUtils::GetMonotonicMs() > end_ms) {
            error = "the broker does not answer in time";
            return false;
        }
    }
    return true;
}

}  // namespace

int MakeKey(const Arguments& arguments) {
    const auto key = SDK::SigningKey::Generate();
    if (key == nullptr) return Fail("cannot make a key");
    if (!WriteNew(arguments.key_file, key->PrivatePem(), 0600)) {
        return Fail("cannot write " + arguments.key_file + ": " + std::strerror(errno));
    }
    if (!WriteNew(arguments.public_file, key->PublicPem(), 0644)) {
        return Fail("cannot write " + arguments.public_file + ": " + std::strerror(errno));
    }
    std::cout << "Keep " << arguments.key_file << " away from the broker and the collector; give "
              << arguments.public_file << " to every host (fleet.policy_key)." << std::endl;
    return kExitOk;
}

int SignPolicy(const Arguments& arguments) {
    Fleet::SignedPolicy policy;
    std::string error;
    const auto key = ReadPrivateKey(arguments.key_file, error);
    if (key == nullptr) return Fail(error);
    if (SDK::FileUtils::ReadFile(arguments.file, policy.text, Fleet::kMaxPolicyBytes) != 0) {
        return Fail("cannot read " + arguments.file + ": " + std::strerror(errno));
    }
    policy.version = arguments.version > 0 ? arguments.version : NumberNow();
    policy.feature = arguments.feature;
    policy.hosts = AudienceOf(arguments);
    if (policy.hosts.empty()) return Fail("name --host or --group, or give --all-hosts");
    const std::string document = Fleet::Sign(policy, *key);
    if (!Fleet::ReadSigned(document, *key, policy, error)) {
        return Fail("this cannot be signed: the document is too large or the feature is no name");
    }
    std::cout << document << std::endl;
    return std::cout.good() ? kExitOk : kExitFailed;
}

int PublishDocument(const Arguments& arguments) {
    CollectorSettings settings;
    std::string error;
    if (!ReadSettings(arguments.config, settings, error)) return Fail(error);
    if (!arguments.user.empty()) settings.broker.user = arguments.user;
    if (!arguments.password_file.empty()) settings.broker.password_file = arguments.password_file;
    std::string document;
    if (SDK::FileUtils::ReadFile(arguments.file, document, Fleet::kMaxPolicyBytes) != 0) {
        return Fail("cannot read " + arguments.file + ": " + std::strerror(errno));
    }
    const auto delivery = ReadDelivery(document);
    if (!delivery) return Fail(arguments.file + " is no signed policy or act");
    const bool is_act = delivery->kind == Fleet::DocumentKind::kAct;
    if (is_act && delivery->expires_s <= SDK::TimeUtils::GetCurrentTimestampS()) {
        return Fail("the act has expired");
    }
    std::vector<std::string> hosts;
    if (!Targets(arguments, *delivery, hosts)) return kExitFailed;
    Fleet::BrokerClient broker(settings.broker, "", 0, [](Fleet::Message&&) {});
    if (!broker.Connect(error) || !PublishAll(broker, *delivery, hosts, error)) {
        return Fail("cannot publish: " + error);
    }
    broker.Disconnect();
    std::cout << "published to " << hosts.size() << " hosts; sentrel_collector "
              << (is_act ? "acts" : "results") << " shows their answers" << std::endl;
    return kExitOk;
}

}  // namespace Collector
