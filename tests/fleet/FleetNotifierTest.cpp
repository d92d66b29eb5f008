// People are told of incidents and silent hosts, by real channels and from both databases.
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include "notify/FleetNotifier.h"
#include "service/FleetMetrics.h"
#include "service/Intake.h"
#include "support/AlarmReports.h"
#include "support/HttpReceiver.h"
#include "support/Postgres.h"
#include "support/WaitFor.h"

namespace {

class FleetNotifierTest : public testing::TestWithParam<test::DatabaseKind> {
  protected:
    void SetUp() override {
        ASSERT_TRUE(store_.Open(database_.Location())) << store_.Error();
        ASSERT_TRUE(intake_.Load());
    }

    void Start() {
        std::string error;
        Notify::Settings settings;
        settings.webhook.url = receiver_.Url("/hook");
        settings.settle_seconds = 0;
        notifier_ = std::make_unique<Collector::FleetNotifier>(settings, database_.Location());
        ASSERT_TRUE(notifier_->Start([] { return true; }, error)) << error;
        ASSERT_TRUE(Await([&] {
            std::optional<std::string> one;
            std::optional<std::string> other;
            return store_.ReadMark("notify-webhook", one) &&
                   store_.ReadMark("notify-webhook-hosts", other) && one && other;
        }));
    }

    /// Stores the next alarm of the host, a quarter of a minute ago.
    void Alarm(const std::string& host, const std::string& path) {
        Fleet::Report report;
        report.stream = "fleet-" + host;
        report.seq = ++seqs_[host];
        report.previous = report.acknowledged = report.seq - 1;
        report.kind = "alarm";
        report.outcome = "restored";
        report.body = test::AlarmReport(1, 1, "modify", path, "restored")["body"].asString();
        intake_.Add({"sentrel/" + host + "/state", R"({"online":true,"host":"www-)" + host +
                                                       R"(","health":{"state":"healthy"}})"});
        intake_.Add(Fleet::ToMessage(host, report));
        std::vector<Collector::Reply> replies;
        ASSERT_TRUE(intake_.Store(now_ms_, replies)) << intake_.Error();
    }

    static bool Await(const std::function<bool()>& condition) {
        return test::WaitFor(condition, test::Scaled(std::chrono::seconds(15)));
    }

    /// The incidents of all messages so far, as "host path actions".
    std::string Told() const {
        std::string all;
        for (const auto& request : receiver_.Requests()) {
            Json::Value message;
            SDK::JsonUtils::ParseJsonStr(request.body.data(), request.body.size(), message);
            for (const Json::Value& one : message["incidents"]) {
                all += one["agent_id"].asString() + " " + one["host"].asString() + " " +
                       one["path"].asString() + " " + one["actions"].getMemberNames().at(0) + ", ";
            }
        }
        return all;
    }

    const std::int64_t now_ms_ = SDK::TimeUtils::GetCurrentTimestampS() * 1000 - 15'000;
    test::AnyDatabase database_{GetParam()};
    test::HttpReceiver receiver_;
    Collector::CollectorSettings settings_;
    Collector::FleetStore store_;
    Collector::Intake intake_{store_, settings_};
    std::map<std::string, std::int64_t> seqs_;
    std::unique_ptr<Collector::FleetNotifier> notifier_;
};

TEST_P(FleetNotifierTest, IncidentsAndSilentHosts_AreToldOnceAlsoAfterAnOutageOfTheReceiver) {
    Alarm("a", "/srv/before");
    Start();
    Alarm("a", "/srv/x");
    ASSERT_TRUE(Await([&] { return Told() == "a www-a /srv/x modify, "; })) << Told();
    receiver_.Answer(500);
    Alarm("b", "/srv/y");
    ASSERT_TRUE(Await([&] { return receiver_.Requests().size() == 2; }));
    notifier_.reset();
    receiver_.Answer(200);
    ASSERT_TRUE(intake_.CheckSilence(now_ms_ + 14'000, now_ms_)) << "nobody is silent yet";
    settings_.silent_after_s = 2;
    Collector::Intake later(store_, settings_);
    ASSERT_TRUE(later.Load());
    ASSERT_TRUE(later.CheckSilence(now_ms_ + 10'000, now_ms_)) << later.Error();
    Start();
    ASSERT_TRUE(Await([&] { return receiver_.Requests().size() >= 4; })) << Told();
    const std::string told = Told();
    EXPECT_NE(told.find("b www-b /srv/y modify, "), told.rfind("b www-b /srv/y modify, "));
    EXPECT_NE(told.find("a www-a  silent, b www-b  silent, "), std::string::npos) << told;
    EXPECT_EQ(told.find("before"), std::string::npos);
}

TEST_P(FleetNotifierTest, Metrics_CountHostsAndReports) {
    Alarm("a", "/srv/x");
    Alarm("b", "/srv/y");
    ASSERT_TRUE(intake_.CheckSilence(now_ms_ + 60'000, now_ms_));
    std::string text;
    ASSERT_TRUE(Collector::FormatMetrics(store_, intake_.Counters(), text)) << store_.Error();
    for (const char* line :
         {"\nsentrel_fleet_hosts{state=\"silent\"} 2\n",
          "\nsentrel_fleet_hosts{state=\"healthy\"} 0\n",
          "\nsentrel_fleet_reports_total{fate=\"stored\"} 2\n",
          "\nsentrel_fleet_collector_listening 0\n", "\nsentrel_fleet_database_bytes "}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
}

INSTANTIATE_TEST_SUITE_P(Database, FleetNotifierTest,
                         testing::Values(test::DatabaseKind::kSqlite,
                                         test::DatabaseKind::kPostgres),
                         test::NameOfKind);

}  // namespace
