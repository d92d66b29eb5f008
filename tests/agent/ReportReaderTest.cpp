#include <control/ReportReader.h>
#include <gtest/gtest.h>

#include <future>

#include "support/FakeReports.h"
#include "support/WaitFor.h"

namespace {

using namespace std::chrono_literals;

TEST(ReportReader, WaitingReader_GetsAReportThatComes) {
    Framework::QueryRegistry queries;
    test::FakeReports store(queries);
    Agent::ReportReader reader(queries, 1);
    auto answer = std::async(std::launch::async, [&] {
        return reader.Read({{"after", "0"}, {"wait_ms", "30000"}});
    });
    ASSERT_TRUE(test::WaitFor([&] { return store.TimesAsked() > 0; }, 5s));
    EXPECT_EQ(reader.Read({{"wait_ms", "30000"}}).status, 503) << "one waiting reader is the limit";
    EXPECT_EQ(reader.Read({}).status, 200) << "others are not held up";
    store.Add("late");
    ASSERT_EQ(answer.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(answer.get().body["reports"][0]["body"], "late");
}

}  // namespace
