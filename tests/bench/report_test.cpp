#include <gtest/gtest.h>

#include "base/Stats.h"
#include "report/Document.h"
#include "report/Limits.h"

namespace Bench {
namespace {

void AddAll(Results& results, const char* row, const char* product, std::vector<double> samples) {
    for (const double sample : samples) results.Add(row, product, sample);
}

TEST(Stats, SamplesInAnyOrder_MedianAndPercentileAreThoseOfTheSorted) {
    EXPECT_DOUBLE_EQ(Median({9, 1, 5}), 5);
    EXPECT_DOUBLE_EQ(Median({4, 1, 3, 2}), 2.5);
    std::vector<double> hundred;
    for (int i = 100; i > 0; --i) hundred.push_back(i);
    EXPECT_DOUBLE_EQ(Percentile(hundred, 0.99), 99);
    EXPECT_DOUBLE_EQ(Percentile({7, 3}, 0.99), 7) << "few samples: the worst";
    EXPECT_DOUBLE_EQ(Median({}), 0);
}

TEST(Limits, OursMeasuredBesideOthers_EachIsHeldAgainstItsOwn) {
    Results results;
    AddAll(results, "restore_4k", "bare rsync", {5, 5, 5});
    AddAll(results, "restore_4k", "Sentrel", {5.5, 5.9, 5.9});
    AddAll(results, "restore_4k", "lsyncd", {5.8, 5.8, 5.8});
    AddAll(results, "restore_4k", "watchman trigger", {20, 20, 20});
    AddAll(results, "events_ignored", "Sentrel", {300000});
    AddAll(results, "events_ignored", "inotifywait", {200000});
    std::vector<bool> met;
    for (const Verdict& verdict : Evaluate(results)) met.push_back(verdict.met);
    EXPECT_EQ(met, (std::vector<bool>{true, true, false, false, false, true}))
        << "two ratios, two times, the best peer; the rate is at least";
}

TEST(Limits, LossWhereNoneIsAllowed_IsNotMetHoweverFewRunsHadIt) {
    Results results;
    AddAll(results, "overflow_left", "Sentrel", {0, 0, 1});
    ASSERT_EQ(Evaluate(results).size(), 1U);
    EXPECT_FALSE(Evaluate(results)[0].met);
    Results clean;
    AddAll(clean, "overflow_left", "Sentrel", {0, 0, 0});
    EXPECT_TRUE(Evaluate(clean)[0].met);
}

TEST(Limits, BusyMachine_OnlyThoseThatThenHoldAndWithTheirAllowance) {
    Results results;
    AddAll(results, "restore_4k", "Sentrel", {50});
    AddAll(results, "burst_1000", "Sentrel", {900});
    AddAll(results, "burst_1000", "lsyncd, batching", {500});
    std::vector<std::string> limits;
    for (const Verdict& verdict : Evaluate(results, true)) limits.push_back(verdict.limit);
    EXPECT_EQ(limits, std::vector<std::string>{"at most 1,000 ms"});
}

TEST(Results, RowMeasuredAgain_ReplacesThatRowOfTheFileAlone) {
    Results old;
    AddAll(old, "removed_flat", "Sentrel", {1, 2});
    AddAll(old, "added_10000", "Sentrel", {3});
    Results now;
    now.FromJson(old.ToJson());
    now.Add("removed_flat", "Sentrel", 7);
    EXPECT_EQ(now.Find("removed_flat", "Sentrel").samples, (std::vector<double>{7}));
    EXPECT_EQ(now.Find("added_10000", "Sentrel").samples, (std::vector<double>{3}));
}

TEST(Document, GuardThatWasLeftOut_StandsInTheTableWithItsReason) {
    Results results;
    AddAll(results, "removed_flat", "bare rsync", {400});
    AddAll(results, "removed_flat", "Sentrel", {1300});
    results.Note("removed_flat", "watchman trigger", "skipped: not installed");
    const std::string text = ToMarkdown(ToDocument(results, Json::Value(), Form{}));
    EXPECT_NE(text.find("| Sentrel | 1,300 | 1,300 | 1 | 3.25 |"), std::string::npos) << text;
    EXPECT_NE(text.find("| 1,300 ms | at most 1,200 ms | 1.08 | **not met** |"), std::string::npos);
    EXPECT_NE(text.find("| watchman trigger | – | – | 0 | – | skipped: not installed |"),
              std::string::npos);
}

}  // namespace
}  // namespace Bench
