#include <common/ControlProtocol.h>
#include <control/ReportReader.h>
#include <gtest/gtest.h>

#include <future>

#include "support/FakeReports.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;
using Agent::QueryParameters;

class ReportReader : public testing::Test {
  protected:
    Framework::QueryRegistry queries_;
    test::FakeReports store_{queries_};
    Agent::ReportReader reader_{queries_, 1};
};

TEST_F(ReportReader, Parameters_ReachTheStoreWithinTheirLimits) {
    store_.Add("one");
    const Agent::Reply reply =
        reader_.Read({{"kind", "alarm"}, {"after", "0"}, {"since", "5"}, {"limit", "999999"}});
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body["reports"].size(), 1u);
    const Json::Value request = store_.LastRequest();
    EXPECT_EQ(request["kind"], "alarm");
    EXPECT_EQ(request["since"].asInt64(), 5);
    EXPECT_EQ(request["limit"].asInt64(), Agent::kMaxReportsPerRequest);
}

TEST_F(ReportReader, ParametersThatAreNone_AreRefused) {
    for (const QueryParameters& bad : std::vector<QueryParameters>{{{"kind", "x"}},
                                                                   {{"after", "-1"}},
                                                                   {{"limit", "ten"}},
                                                                   {{"wait_ms", ""}},
                                                                   {{"colour", "1"}}}) {
        EXPECT_EQ(reader_.Read(bad).status, 400) << bad[0].first;
    }
    EXPECT_EQ(store_.TimesAsked(), 0);
}

TEST_F(ReportReader, WaitingReader_GetsAReportThatComes) {
    auto answer = std::async(std::launch::async, [&] {
        return reader_.Read({{"after", "0"}, {"wait_ms", "30000"}});
    });
    ASSERT_TRUE(test::WaitFor([&] { return store_.TimesAsked() > 0; }, 5s));
    EXPECT_EQ(reader_.Read({{"wait_ms", "30000"}}).status, 503)
        << "one waiting reader is the limit";
    EXPECT_EQ(reader_.Read({}).status, 200) << "others are not held up";
    store_.Add("late");
    ASSERT_EQ(answer.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(answer.get().body["reports"][0]["body"], "late");
}

TEST_F(ReportReader, Stop_SendsWaitingReadersHome) {
    auto answer = std::async(std::launch::async, [&] {
        return reader_.Read({{"after", "0"}, {"wait_ms", "30000"}});
    });
    ASSERT_TRUE(test::WaitFor([&] { return store_.TimesAsked() > 0; }, 5s));
    reader_.Stop();
    ASSERT_EQ(answer.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(answer.get().status, 200);
}

TEST(ReportReaderWithoutStore, EveryRequest_IsToldSo) {
    Framework::QueryRegistry queries;
    Agent::ReportReader reader(queries, 1);
    EXPECT_EQ(reader.Read({}).status, 503);
    EXPECT_EQ(reader.Read({{"wait_ms", "30000"}}).status, 503);
}

}  // namespace
