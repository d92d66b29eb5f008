#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "ReportExporter.h"

namespace {

/// A report store with numbers only, and what the exporter has sent.
class Exporter : public testing::Test {
  protected:
    static constexpr int kWindow = 3;

    bool Ask(const std::string& query, const Json::Value& request, Json::Value& answer) {
        if (query == "status.report") {
            answer["reports"]["working"] = true;
            answer["reports"]["exporters"] = exporters_;
        } else if (query == "reports.ack") {
            exporters_[request["exporter"].asString()]["acked_seq"] = request["seq"];
            answer["acked_seq"] = request["seq"];
        } else {
            answer["reports"] = Json::Value(Json::arrayValue);
            for (const int seq : stored_) {
                if (seq <= request["after"].asInt()) continue;
                if (answer["reports"].size() >= request["limit"].asUInt()) break;
                Json::Value report(Json::objectValue);
                report["seq"] = seq;
                report["kind"] = "data";
                report["name"] = "2";
                answer["reports"].append(report);
            }
        }
        return true;
    }

    /// What the next pass sends.
    std::vector<int> Pump(std::int64_t now_ms) {
        sent_.clear();
        exporter_.Pump(now_ms);
        return sent_;
    }

    void Acknowledge(std::int64_t seq, bool again = false, std::int64_t now_ms = 0) {
        exporter_.Take({exporter_.State().stream, seq, again}, now_ms);
    }

    using Numbers = std::vector<int>;
    Numbers stored_{5, 6, 7, 8, 9, 10};  ///< the store has dropped 1 to 4 before
    Json::Value exporters_{Json::objectValue};
    Numbers sent_;
    std::int64_t lost_ = 0;
    Engine::ReportExporter exporter_{
        kWindow,
        [this](const char* query, const Json::Value& request, Json::Value& answer) {
            return Ask(query, request, answer);
        },
        [this](const Fleet::Report& report) {
            sent_.push_back(static_cast<int>(report.seq));
            return true;
        },
        [this](std::int64_t count, std::int64_t) { lost_ += count; }};
};

TEST_F(Exporter, Window_MovesWithAcknowledgementsAndRepeatsAfterALoss) {
    EXPECT_EQ(Pump(0), (Numbers{5, 6, 7}));
    EXPECT_EQ(Pump(1), Numbers());
    Acknowledge(6);
    EXPECT_EQ(Pump(2), (Numbers{8, 9}));
    Acknowledge(6, true, 1000);
    EXPECT_EQ(Pump(1001), (Numbers{7, 8, 9})) << "asked for again";
    Acknowledge(6, true, 1002);
    EXPECT_EQ(Pump(1003), Numbers()) << "asked for too often";
    EXPECT_EQ(Pump(20'000), (Numbers{7, 8, 9})) << "no answer";
    exporter_.Restart();
    EXPECT_EQ(Pump(20'001), (Numbers{7, 8, 9})) << "a new connection";
    EXPECT_EQ(lost_, 0) << "what was dropped before the first export is no loss";
}

TEST_F(Exporter, ForgedAcknowledgement_ForgetsNoUnsentReport) {
    Pump(0);
    exporter_.Take({"fleet-other", 7, false}, 0);
    EXPECT_EQ(exporter_.State().acknowledged, 4);
    Acknowledge(1'000'000);
    EXPECT_EQ(exporter_.State().acknowledged, 7) << "beyond what was sent";
    EXPECT_EQ(Pump(1), (Numbers{8, 9, 10}));
}

TEST_F(Exporter, ReportsDroppedBeforeTheyAreAcknowledged_AreCountedOnce) {
    Pump(0);
    stored_ = {9, 10};
    exporter_.Restart();
    EXPECT_EQ(Pump(1), (Numbers{9, 10}));
    exporter_.Restart();
    Pump(2);
    EXPECT_EQ(lost_, 4) << "5 to 8";
}

TEST_F(Exporter, RandomAcknowledgements_ForgetNoUnsentReport) {
    std::minstd_rand random(20261122);
    static const std::vector<std::string> pieces{"{",
                                                 "}",
                                                 "[",
                                                 "\"stream\":",
                                                 "\"seq\":",
                                                 "\"again\":",
                                                 ",",
                                                 "true",
                                                 "-1",
                                                 "1e99",
                                                 "99999999999999999999",
                                                 "\xff",
                                                 std::string(2000, '['),
                                                 "\"fleet-1\"",
                                                 "6"};
    Pump(0);
    for (int i = 0; i < 5000; ++i) {
        std::string text = i % 3 == 0 ? "{" : "";
        for (unsigned n = random() % 8; n > 0; --n) text += pieces[random() % pieces.size()];
        const auto acknowledgement = Fleet::ReadAcknowledgement(text);
        if (acknowledgement) exporter_.Take(*acknowledgement, i);
    }
    exporter_.Take({exporter_.State().stream, -5, true}, 10'000);
    exporter_.Take({exporter_.State().stream, INT64_MAX, true}, 20'000);
    EXPECT_EQ(exporter_.State().acknowledged, 7) << "beyond what was sent";
}

}  // namespace
