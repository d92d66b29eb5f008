#include <gtest/gtest.h>
#include <json/writer.h>
#include <sdk/text/JsonUtils.h>

#include <map>

#include "centre/Delivery.h"
#include "centre/Rollouts.h"
#include "console/FleetBackend.h"
#include "support/Postgres.h"

namespace {

using Console::Role;
using test::DatabaseKind;

class RolloutsTest : public testing::TestWithParam<DatabaseKind> {
  protected:
    static constexpr int kHosts = 40;

    RolloutsTest() {
        EXPECT_TRUE(hosts_.Open(database_.Location())) << hosts_.Error();
        EXPECT_TRUE(store_.Open(database_.Location()));
        std::string error;
        EXPECT_TRUE(backend_.Open(database_.Location(), error)) << error;
        for (int at = 0; at < kHosts; ++at) {
            Collector::HostRecord host;
            host.agent_id = "host-" + std::to_string(100 + at);
            host.state = R"({"groups":["web"]})";
            EXPECT_TRUE(hosts_.AddHost(host));
            ids_[host.agent_id] = host.id;
        }
    }

    Console::Reply Post(const std::vector<std::string>& path, const Json::Value& body, Role role) {
        return backend_.Handle({"POST", path, {}, body, {"anna", role, ""}});
    }

    /// Prepares with the console's request and signs; then publishes. The status.
    int Publish(Json::Value body, Role role) {
        Console::Reply prepared = Post({"prepare"}, body, Role::kAdmin);
        EXPECT_EQ(prepared.status, 200) << prepared.body;
        Fleet::DocumentKind kind{};
        std::string content;
        EXPECT_TRUE(Fleet::ReadToBeSigned(prepared.body["document"].asString(), kind, content));
        document_ = Fleet::Seal(kind, content, *key_);
        body["document"] = document_;
        body["percent"] = 5;
        prepared = Post({"publish"}, body, role);
        id_ = prepared.body["rollout"].asInt64();
        return prepared.status;
    }

    static Json::Value Policy() {
        Json::Value body(Json::objectValue);
        body["hosts"].append("@web");
        body["feature"] = "sentrel_feature";
        body["policy"] = "{}";
        return body;
    }

    /// Lets the service work, started anew each time; the hosts answer with `verdict`.
    void Work(const std::string& verdict, int steps = 4) {
        for (int step = 0; step < steps; ++step) {
            Collector::Rollouts rollouts(store_, {1'000, 60'000}, [&](const Fleet::Message& sent) {
                ++sent_[sent.topic];
                EXPECT_TRUE(sent.retain);
                EXPECT_EQ(sent.payload, document_);
                if (verdict.empty()) return true;
                const std::string id = sent.topic.substr(8, 8);
                EXPECT_TRUE(hosts_.SaveResult(ids_.at(id), "sentrel_feature",
                                              R"({"verdict":")" + verdict +
                                                  R"(","reason":"why","sha256":")" +
                                                  Collector::DigestOf(document_) + "\"}",
                                              now_ms_));
                return true;
            });
            rollouts.Work(now_ms_ += 1'100);
        }
    }

    std::string State() { return store_.Find(id_)->state; }

    test::AnyDatabase database_{GetParam()};
    Collector::FleetStore hosts_;
    Collector::RolloutStore store_;
    Collector::FleetBackend backend_;
    std::map<std::string, std::int64_t> ids_;
    const std::unique_ptr<SDK::SigningKey> key_ = SDK::SigningKey::Generate();
    std::string document_;
    std::int64_t id_ = 0;
    std::int64_t now_ms_ = 1'000'000;
    std::map<std::string, int> sent_;  ///< by topic
};

TEST_P(RolloutsTest, GoodPolicy_ReachesAFewHostsAndThenAllOnce) {
    ASSERT_EQ(Publish(Policy(), Role::kAdmin), 200);
    Work("on", 2);
    EXPECT_EQ(sent_.size(), 2U) << "5 % of 40";
    Work("on");
    EXPECT_EQ(sent_.size(), static_cast<std::size_t>(kHosts));
    EXPECT_EQ(State(), "done");
    for (const auto& [topic, count] : sent_) EXPECT_EQ(count, 1) << topic;
    const Console::Reply shown = backend_.Handle(
        {"GET", {"rollouts", std::to_string(id_)}, {}, {}, {"anna", Role::kViewer, ""}});
    EXPECT_EQ(shown.body["rollout"]["answered"].asInt(), kHosts);
}

TEST_P(RolloutsTest, RejectionSilenceOrAlarms_StopBeforeTheOthers) {
    ASSERT_EQ(Publish(Policy(), Role::kAdmin), 200);
    Work("rejected");
    EXPECT_EQ(State(), "stopped");
    EXPECT_NE(store_.Find(id_)->reason.find("answered rejected: why"), std::string::npos);
    EXPECT_EQ(sent_.size(), 2U);
    const std::vector<std::string> go_on{"rollouts", std::to_string(id_), "continue"};
    EXPECT_EQ(Post(go_on, {}, Role::kOperator).status, 403);
    EXPECT_EQ(Post(go_on, {}, Role::kAdmin).status, 200);
    Work("on");
    EXPECT_EQ(State(), "done");
    EXPECT_EQ(sent_.size(), static_cast<std::size_t>(kHosts));

    sent_.clear();
    ASSERT_EQ(Publish(Policy(), Role::kAdmin), 200);
    Work("", 60);
    EXPECT_EQ(State(), "stopped") << "nobody answers";
    EXPECT_EQ(sent_.size(), 2U);

    sent_.clear();
    ASSERT_EQ(Publish(Policy(), Role::kAdmin), 200);
    Work("", 2);
    Collector::HostRecord host;
    host.id = ids_.begin()->second;
    ASSERT_TRUE(hosts_.Begin());
    for (int at = 1; at <= 4; ++at) {
        Fleet::Report alarm;
        alarm.seq = at;
        alarm.kind = "alarm";
        ASSERT_TRUE(hosts_.AddReport(host, alarm, now_ms_ + 1));
    }
    ASSERT_TRUE(hosts_.Commit());
    Work("", 2);
    EXPECT_EQ(State(), "stopped");
    EXPECT_NE(store_.Find(id_)->reason.find("4 alarms"), std::string::npos);
}

TEST_P(RolloutsTest, WhatALostConnectionTookAlong_IsSentAgain) {
    ASSERT_EQ(Publish(Policy(), Role::kAdmin), 200);
    Work("", 2);
    std::vector<std::string> again;
    Collector::Rollouts rollouts(store_, {1'000, 60'000, 500}, [&](const Fleet::Message& sent) {
        again.push_back(sent.topic);
        return true;
    });
    rollouts.Restart(now_ms_);
    rollouts.Work(now_ms_ + 400);
    EXPECT_TRUE(again.empty()) << "answers may still arrive";
    ASSERT_TRUE(hosts_.SaveResult(
        ids_.begin()->second, "sentrel_feature",
        R"({"verdict":"on","sha256":")" + Collector::DigestOf(document_) + "\"}", now_ms_));
    for (int step = 0; step < 3; ++step) rollouts.Work(now_ms_ += 600);
    EXPECT_EQ(again, std::vector<std::string>{"sentrel/host-101/policy/sentrel_feature"});
}

TEST_P(RolloutsTest, Roles_DecideWhoMayPublish) {
    Json::Value pause(Json::objectValue);
    pause["act"] = "pause";
    pause["hosts"].append("host-100");
    pause["request"]["path"] = "/var/www";
    EXPECT_EQ(Post({"prepare"}, pause, Role::kViewer).status, 403);
    EXPECT_EQ(Post({"prepare"}, Policy(), Role::kOperator).status, 403);
    EXPECT_EQ(Publish(pause, Role::kViewer), 403);
    EXPECT_EQ(Publish(Policy(), Role::kOperator), 403);
    EXPECT_EQ(Publish(pause, Role::kOperator), 200);
    pause["hosts"][0] = "host-999";
    EXPECT_EQ(Post({"prepare"}, pause, Role::kOperator).status, 400) << "an unknown host";
    for (const char* text : {"", "{}", "{\"content\":\"{}\",\"signature\":\"00\"}"}) {
        Json::Value body(Json::objectValue);
        body["document"] = text;
        EXPECT_EQ(Post({"publish"}, body, Role::kAdmin).status, 400) << text;
    }
    const Console::Reply log = backend_.Handle({"GET", {"acts"}, {}, {}, {"a", Role::kAdmin, ""}});
    EXPECT_EQ(log.body["acts"].size(), 1U) << log.body;
}

INSTANTIATE_TEST_SUITE_P(Database, RolloutsTest,
                         testing::Values(DatabaseKind::kSqlite, DatabaseKind::kPostgres),
                         test::NameOfKind);

}  // namespace
