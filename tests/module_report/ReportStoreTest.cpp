#include <filesystem>
#include <future>

#include "StoreFixture.h"

namespace {

using namespace std::chrono_literals;
using ReportStoreTest = test::StoreTest;

TEST_F(ReportStoreTest, Reopened_ReportsAreKeptByteForByte) {
    const std::vector<std::string> bodies = {std::string("a\0b", 3), "\xff\xfe{\"no json", "",
                                             std::string(100000, 'x')};
    for (const std::string& body : bodies) ASSERT_GT(Store(body), 0);
    Reopen();
    const std::vector<Engine::Report> reports = ReadAll();
    ASSERT_EQ(reports.size(), bodies.size());
    for (std::size_t i = 0; i < bodies.size(); ++i) EXPECT_EQ(reports[i].body, bodies[i]);
    EXPECT_GT(Store("next"), reports.back().seq);
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0600));
}

TEST_F(ReportStoreTest, AgeBound_RemovesWhatIsOlderAndNothingElse) {
    constexpr std::int64_t kDayMs = 24LL * 3600 * 1000;
    for (int i = 0; i < 600; ++i) Store("old");
    now_ms_ += 10 * kDayMs;
    Store("young");
    store_->Maintain();
    EXPECT_EQ(store_->Status().stored, 601);
    now_ms_ += settings_.max_age_days * kDayMs - 1;
    store_->Maintain();
    ASSERT_EQ(ReadAll().size(), 1U);
    EXPECT_EQ(ReadAll()[0].body, "young");
}

TEST_F(ReportStoreTest, SizeBound_RemovesTheOldestAndCountsUnacknowledgedOnes) {
    settings_.max_megabytes = 1;
    Reopen();
    constexpr int kReports = 300;
    for (int i = 0; i < kReports; ++i) Store(std::string(10000, 'x'));
    ASSERT_TRUE(store_->Acknowledge("exporter", 10));
    store_->Maintain();

    const Engine::StoreStatus status = store_->Status();
    EXPECT_LE(status.bytes, settings_.MaxBytes());
    EXPECT_GT(status.stored, 50) << "it prunes no more than it must";
    EXPECT_EQ(status.reports_lost, static_cast<std::uint64_t>(kReports - status.stored - 10));
    EXPECT_EQ(ReadAll().back().seq, kReports);
}

TEST_F(ReportStoreTest, WaitingReader_IsWokenByAMatchOrTheEndOnly) {
    Store("earlier alarm");
    Engine::ReportFilter filter;
    filter.kind = Engine::ReportFilter::Kind::kAlarm;
    filter.after = 1;
    Engine::ReportPage page;
    auto reader = std::async(std::launch::async, [&] { return store_->Read(filter, 60s, page); });
    Store("a status", Engine::kDataKind, "sentrel_status_1");
    Store("an exception", Engine::kCmdKind, "2");
    const std::int64_t alarm = Store("the alarm");
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(reader.get());
    ASSERT_EQ(page.reports.size(), 1U);
    EXPECT_EQ(page.reports[0].seq, alarm);
    reader = std::async(std::launch::async, [&] { return store_->Read(filter, 60s, page); });
    store_->StopWaiting();
    EXPECT_EQ(reader.wait_for(10s), std::future_status::ready);
}

}  // namespace
