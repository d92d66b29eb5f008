#include <fleet/BrokerClient.h>
#include <fleet/Report.h>
#include <fleet/Topics.h>
#include <sdk/time/TimeUtils.h>

#include "store/FleetStore.h"
#include "store/ReportStore.h"
#include "support/FleetHost.h"

namespace {

using namespace std::chrono_literals;

class FleetChain : public test::FleetHost {
  protected:
    /// Puts reports into the store of the agent, which must not run.
    void FillStore(int count) const {
        const std::int64_t now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
        Engine::ReportStore store(agent_.Path("data/reports.db"), {}, [=] { return now_ms; });
        for (int i = 1; i <= count; ++i) {
            Engine::Report report;
            report.kind = Engine::kCmdKind;
            report.name = "test";
            report.body = "report " + std::to_string(i);
            ASSERT_TRUE(store.Store(report));
        }
    }

    /// The number up to which the collector has everything.
    std::int64_t StoredSeq() const {
        Collector::FleetStore store;
        std::vector<Collector::HostRecord> hosts;
        if (!store.OpenExisting(collector_.Database()) || !store.ReadHosts(hosts)) return 0;
        return hosts.empty() ? 0 : hosts[0].acknowledged;
    }

    bool AwaitStored(std::int64_t seq) const {
        return Await([&] { return StoredSeq() >= seq; });
    }
};

TEST_F(FleetChain, UndoneChange_IsAtTheCollectorAndTheHostThatFallsSilentIsNamed) {
    ASSERT_TRUE(broker_.Start());
    ASSERT_TRUE(collector_.Start());
    Protect();
    ASSERT_TRUE(Await([&] { return collector_.Status()["exit_code"].asInt() == 0; }))
        << collector_.Status();
    EXPECT_EQ(HostAtCollector()["agent_id"].asString(), kAgentId);
    ASSERT_TRUE(TamperingIsUndone("index.html"));
    ASSERT_TRUE(Await([&] { return !Reports("alarm").empty(); }));
    const Json::Value alarm = Reports("alarm")[0];
    EXPECT_NE(alarm["body"].asString().find("index.html"), std::string::npos);
    EXPECT_EQ(alarm["outcome"].asString(), "restored");

    agent_.Kill();
    EXPECT_TRUE(Await([&] { return collector_.Status()["exit_code"].asInt() == 3; }));
    EXPECT_TRUE(HostAtCollector()["silent"].asBool());
    ASSERT_TRUE(agent_.Start());
    EXPECT_TRUE(Await([&] { return collector_.Status()["exit_code"].asInt() == 0; }));
    EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_TRUE(Await([&] { return collector_.Status()["exit_code"].asInt() == 3; }));
    EXPECT_EQ(collector_.Stop(), 0);
    EXPECT_EQ(collector_.Status()["exit_code"].asInt(), 5);
}

TEST_F(FleetChain, KilledBrokerAndCollectorAndAgent_LoseAndDoubleNothing) {
    constexpr int kReports = 2400;
    FillStore(kReports);
    ASSERT_TRUE(broker_.Start());
    ASSERT_TRUE(collector_.Start());
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitStored(300));
    collector_.Kill();
    const std::int64_t first = StoredSeq();
    ASSERT_TRUE(collector_.Start());
    ASSERT_TRUE(AwaitStored(first + 300));
    broker_.Kill();
    const std::int64_t second = StoredSeq();
    ASSERT_TRUE(broker_.Start());
    ASSERT_TRUE(AwaitStored(second + 300));
    agent_.Kill();
    EXPECT_LT(StoredSeq(), kReports) << "all was sent before the last kill";
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitStored(kReports));

    const std::vector<Json::Value> reports = Reports("cmd");
    ASSERT_EQ(reports.size(), static_cast<std::size_t>(kReports));
    for (int i = 0; i < kReports; ++i) {
        ASSERT_EQ(reports[i]["seq"].asInt(), i + 1);
        ASSERT_EQ(reports[i]["body"].asString(), "report " + std::to_string(i + 1));
    }
    EXPECT_TRUE(collector_.Lines({"events"}).empty() ||
                collector_.Lines({"events"})[0]["kind"] != "renumbered");
    // The mark is in the agent's store: it does not send them once more.
    EXPECT_TRUE(Await([&] {
        return agent_.Status()["fleet"]["acknowledged"].asInt64() >= kReports &&
               agent_.Status()["fleet"]["in_flight"].asInt64() == 0;
    }));
}

TEST_F(FleetChain, CredentialsOfAnotherHost_ReachNeitherItsReportsNorItsAcknowledgements) {
    ASSERT_TRUE(broker_.Start());
    ASSERT_TRUE(collector_.Start());
    int received = 0;
    Fleet::BrokerClient intruder(broker_.SettingsOf(kOtherId), kAgentId, 1000,
                                 [&](Fleet::Message&&) { ++received; });
    std::string error;
    ASSERT_TRUE(intruder.Connect(error)) << error;
    const auto step = [&] { return intruder.Step(10ms, -1, error); };
    ASSERT_TRUE(Await([&] { return step() && intruder.IsConnected(); })) << error;
    for (const char* filter : {"sentrel/#", "$share/collectors/sentrel/+/report/+"}) {
        intruder.Subscribe(filter);
    }
    Fleet::Report report;
    report.stream = "fleet-forged";
    report.seq = 1;
    report.kind = "alarm";
    for (const std::string victim : {kAgentId, "collector", kOtherId}) {
        intruder.Publish(Fleet::ToMessage(victim, report));
        intruder.Publish({Fleet::StateTopic(victim), "{\"online\":true}", true});
        intruder.Publish({Fleet::AckTopic(victim), "{\"seq\":1}", false});
        intruder.Publish({Fleet::PolicyTopic(victim, "sentrel_feature"), "{}", true});
        intruder.Publish({Fleet::ActTopic(victim, "1"), "{}", true});
        if (victim != kOtherId) {
            intruder.Publish({Fleet::ActResultTopic(victim, "1"), "{}", true});
        }
    }
    ASSERT_TRUE(Await([&] { return step() && intruder.Unacknowledged() == 0; })) << error;
    ASSERT_TRUE(Await([&] { return step() && StoredSeq() == 1; })) << "its own report is missing";
    EXPECT_EQ(HostAtCollector()["agent_id"].asString(), kOtherId) << collector_.Status();
    EXPECT_EQ(Reports().size(), 1U);
    EXPECT_TRUE(collector_.Lines({"acts"}).empty());
    // Of its own topics it may read the acknowledgement and no more.
    EXPECT_TRUE(Await([&] { return step() && received >= 1; }));
    EXPECT_EQ(received, 1);
}

TEST_F(FleetChain, BrokerOfAnotherCaOrName_IsNotTrusted) {
    ASSERT_TRUE(broker_.Start());
    const test::Broker other({});
    const auto connects = [&](const Fleet::BrokerSettings& settings) {
        Fleet::BrokerClient client(settings, "", 0, [](Fleet::Message&&) {});
        std::string error;
        bool good = client.Connect(error);
        EXPECT_TRUE(Await([&] {
            good = good && client.Step(10ms, -1, error);
            return !good || client.IsConnected();
        }));
        return client.IsConnected();
    };
    Fleet::BrokerSettings settings = broker_.SettingsOf("operator");
    EXPECT_TRUE(connects(settings));
    settings.host = "localhost";
    EXPECT_FALSE(connects(settings)) << "the certificate is for 127.0.0.1";
    settings = broker_.SettingsOf("operator");
    settings.ca_file = other.Path("ca.pem");
    EXPECT_FALSE(connects(settings));
    settings = broker_.SettingsOf("stranger");
    EXPECT_FALSE(connects(settings));
}

TEST_F(FleetChain, ClientCertificate_StandsForTheHostAndForNoOther) {
    broker_.UseCertificates({"collector", kOtherId});
    test::CollectorProcess collector(broker_);
    ASSERT_TRUE(broker_.Start());
    ASSERT_TRUE(collector.Start());
    Fleet::BrokerSettings settings = broker_.SettingsOf(kOtherId);
    settings.user = kAgentId;  // the certificate counts
    Fleet::BrokerClient client(settings, "", 1000, [](Fleet::Message&&) {});
    std::string error;
    ASSERT_TRUE(client.Connect(error)) << error;
    const auto step = [&] { return client.Step(10ms, -1, error); };
    ASSERT_TRUE(Await([&] { return step() && client.IsConnected(); })) << error;
    for (const char* id : {kAgentId, kOtherId}) {
        ASSERT_TRUE(client.Publish({Fleet::StateTopic(id), "{\"online\":true}", false}));
    }
    ASSERT_TRUE(Await([&] { return step() && client.Unacknowledged() == 0; })) << error;
    EXPECT_EQ(client.Refused(), 1U);
    ASSERT_TRUE(Await([&] { return collector.Status()["hosts"].size() == 1; }));
    EXPECT_EQ(collector.Status()["hosts"][0]["agent_id"].asString(), kOtherId);

    settings.cert_file.clear();
    settings.key_file.clear();
    settings.password_file = broker_.Path("password");
    Fleet::BrokerClient stranger(settings, "", 0, [](Fleet::Message&&) {});
    bool good = stranger.Connect(error);
    EXPECT_TRUE(Await([&] {
        good = good && stranger.Step(10ms, -1, error);
        return !good;
    })) << "a password instead of a certificate";
    EXPECT_FALSE(stranger.IsConnected());
}

TEST_F(FleetChain, BrokerThatIsNotThere_HarmsNothing) {
    Protect();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    EXPECT_TRUE(Await([&] { return agent_.Status()["fleet"]["connected"] == false; }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(agent_.Stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, test::Scaled(5s));
}

}  // namespace
