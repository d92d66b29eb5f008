#include <sdk/text/JsonUtils.h>

#include "ReportQueries.h"
#include "StoreFixture.h"
#include "alarm_log/AlarmLog.h"

namespace {

class ReportQueriesTest : public test::StoreTest {
  protected:
    static Json::Value Parse(const std::string& text) {
        Json::Value value;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
        return value;
    }

    Json::Value Read(const std::string& request) { return queries_.Read(Parse(request)); }

    std::vector<int> ReadSeqs(const std::string& request) {
        std::vector<int> seqs;
        const Json::Value answer = Read(request);
        for (const Json::Value& report : answer["reports"]) {
            seqs.push_back(report["seq"].asInt());
        }
        return seqs;
    }

    Engine::AlarmLog alarms_{directory_.Path("alarms.jsonl"), 1000, 1};
    Engine::ReportQueries queries_{*store_, alarms_};
};

using Seqs = std::vector<int>;

TEST_F(ReportQueriesTest, Read_FiltersByKindTimeAndPosition) {
    Store("1");
    Store("2", Engine::kCmdKind, "id");
    now_ms_ += 5000;
    Store("3", Engine::kDataKind, "sentrel_status_1");
    Store("4");
    EXPECT_EQ(ReadSeqs("{}"), (Seqs{1, 2, 3, 4}));
    EXPECT_EQ(Read(R"({"after":3})")["first_seq"], 1);
    EXPECT_EQ(ReadSeqs(R"({"limit":2})"), (Seqs{3, 4})) << "the newest";
    EXPECT_EQ(ReadSeqs(R"({"after":0,"limit":2})"), (Seqs{1, 2}));
    EXPECT_EQ(ReadSeqs(R"({"kind":"cmd"})"), (Seqs{2}));
    EXPECT_EQ(ReadSeqs(R"({"kind":"data","after":1})"), (Seqs{3, 4}));
    EXPECT_EQ(ReadSeqs(R"({"kind":"alarm","limit":1})"), (Seqs{4}));
    EXPECT_EQ(ReadSeqs(R"({"since":1700000005,"limit":1})"), (Seqs{3}));
}

TEST_F(ReportQueriesTest, LastSeq_LeadsThroughAllPagesWithoutAGap) {
    for (int i = 0; i < 7; ++i) Store("x", i % 2 == 0 ? Engine::kDataKind : Engine::kCmdKind);
    EXPECT_EQ(Read(R"({"kind":"alarm","after":0,"limit":2})")["last_seq"], 3);
    EXPECT_EQ(Read(R"({"kind":"cmd","after":2})")["last_seq"], 7) << "nothing was cut off";
    for (int i = 0; i < 20; ++i) Store(std::string(1024 * 1024, 'x'));
    const Json::Value page = Read(R"({"after":7})");
    EXPECT_EQ(page["last_seq"], page["reports"][page["reports"].size() - 1]["seq"]);
    EXPECT_TRUE(page["more"].asBool());
    EXPECT_FALSE(Read(R"({"kind":"cmd","after":0})")["more"].asBool());
    EXPECT_LT(page["reports"].size(), 20U) << "an answer has a bounded size";
}

TEST_F(ReportQueriesTest, Exporter_GetsWhatItHasNotAcknowledged) {
    for (int i = 0; i < 4; ++i) Store("x");
    const std::string unread = R"({"exporter":"broker","limit":2})";
    for (int i = 0; i < 2; ++i) EXPECT_EQ(ReadSeqs(unread), (Seqs{1, 2})) << i;
    const auto acknowledge = [&](const std::string& request) {
        return queries_.Acknowledge(Parse(request))["acked_seq"];
    };
    EXPECT_EQ(acknowledge(R"({"exporter":"broker","seq":2})"), 2);
    EXPECT_EQ(acknowledge(R"({"exporter":"broker","seq":1})"), 2) << "never back";
    EXPECT_EQ(ReadSeqs(unread), (Seqs{3, 4}));
    EXPECT_EQ(ReadSeqs(R"({"exporter":"another"})"), (Seqs{1, 2, 3, 4}));
    EXPECT_EQ(acknowledge(R"({"exporter":"broker","seq":99})"), 4) << "never past the last";
}

TEST_F(ReportQueriesTest, ForgottenExporters_AreNotCountedAsLosers) {
    Store("1");
    for (const char* name : {"fleet-1", "fleet-2", "shipper"}) {
        queries_.Acknowledge(Parse(std::string(R"({"seq":1,"exporter":")") + name + R"("})"));
    }
    EXPECT_TRUE(store_->ForgetExporters("fleet-"));
    const Json::Value exporters = queries_.Status()["reports"]["exporters"];
    EXPECT_EQ(exporters.getMemberNames(), std::vector<std::string>{"shipper"});
}

TEST_F(ReportQueriesTest, WrongRequests_GetASentence) {
    for (const char* request :
         {R"({"kind":"alarms"})", R"({"kind":1})", R"({"after":-1})", R"({"after":"1"})",
          R"({"since":1.5})", R"({"limit":[]})", R"({"wait_ms":true})", R"({"exporter":""})",
          R"({"exporter":7})", "[]"}) {
        EXPECT_FALSE(Read(request)["error"].asString().empty()) << request;
    }
    for (const char* request :
         {"{}", R"({"exporter":"a"})", R"({"exporter":"a","seq":-1})", "[]"}) {
        EXPECT_FALSE(queries_.Acknowledge(Parse(request))["error"].asString().empty()) << request;
    }
}

}  // namespace
