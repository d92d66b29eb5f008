// Simulated hosts, the real broker, the real collector and a database, while each part is
// killed.
#include <gtest/gtest.h>

#include "simulator/SimulatedFleet.h"
#include "support/Postgres.h"

namespace {

using namespace std::chrono_literals;

class FleetScale : public testing::TestWithParam<test::DatabaseKind> {
  protected:
    static constexpr int kHosts = 50;
    static constexpr double kRate = 400;

    bool IsPostgres() const { return GetParam() == test::DatabaseKind::kPostgres; }
    Json::Value Config() const {
        return IsPostgres() ? database_.Server().Config() : Json::Value();
    }
    Database::Location Location() const {
        return IsPostgres() ? database_.Location() : Database::Location(collector_.Database());
    }
    bool RunUntil(const std::function<bool()>& done) {
        return fleet_.RunFor(test::Scaled(40s), done);
    }

    const std::vector<std::string> ids_ = test::SimulatedFleet::MakeIds(kHosts);
    test::AnyDatabase database_{GetParam()};
    test::Broker broker_{ids_};
    test::CollectorProcess collector_{broker_, Config()};
    test::SimulatedFleet fleet_{broker_, ids_, 1};
};

TEST_P(FleetScale, KilledBrokerAndCollectorAndDatabase_LoseDoubleAndReorderNothing) {
    ASSERT_TRUE(broker_.Start());
    ASSERT_TRUE(collector_.Start());
    ASSERT_TRUE(RunUntil([&] { return fleet_.Connected() == kHosts; }));
    fleet_.SetRate(kRate);
    ASSERT_TRUE(RunUntil([&] { return fleet_.Acknowledged() >= 200; }));
    collector_.Kill();
    fleet_.RunFor(300ms);
    ASSERT_TRUE(collector_.Start());
    std::int64_t stored = fleet_.Acknowledged();
    ASSERT_TRUE(RunUntil([&] { return fleet_.Acknowledged() >= stored + 200; }));
    broker_.Kill();
    EXPECT_TRUE(RunUntil([&] { return fleet_.Connected() == 0; }));
    ASSERT_TRUE(broker_.Start());
    stored = fleet_.Acknowledged();
    ASSERT_TRUE(RunUntil([&] { return fleet_.Acknowledged() >= stored + 200; }));
    if (IsPostgres()) {
        database_.Server().Stop();
        fleet_.RunFor(1500ms);
        stored = fleet_.Acknowledged();
        fleet_.RunFor(200ms);
        EXPECT_EQ(fleet_.Acknowledged(), stored) << "acknowledged without a database";
        ASSERT_TRUE(database_.Server().Start());
    }
    fleet_.SetRate(0);
    EXPECT_TRUE(RunUntil([&] { return fleet_.Acknowledged() == fleet_.Raised(); }));
    Collector::FleetStore store;
    ASSERT_TRUE(store.OpenExisting(Location())) << store.Error();
    EXPECT_EQ(fleet_.FaultIn(store), "");
    store.ListEvents(1000, [](const Json::Value& event) {
        const std::string kind = event["kind"].asString();
        EXPECT_TRUE(kind == "silent" || kind == "back") << kind;
        return true;
    });
}

// FleetChain has the same with SQLite and one host.
INSTANTIATE_TEST_SUITE_P(Database, FleetScale, testing::Values(test::DatabaseKind::kPostgres),
                         test::NameOfKind);

}  // namespace
