#include <common/PrometheusText.h>
#include <control/status/MetricsFile.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
    return value;
}

/// Reads the text format strictly, as Prometheus does, and notes each violation.
class StrictReader {
  public:
    explicit StrictReader(const std::string& text) {
        if (!text.empty() && text.back() != '\n') Fail("the last line has no end");
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) Read(line);
        if (families_.count("sentrel_undo_duration_seconds") > 0) CheckHistogram();
    }
    const std::string& Faults() const { return faults_; }
    const std::map<std::string, double>& Samples() const { return samples_; }

  private:
    void Fail(const std::string& what) { faults_ += what + "\n"; }

    void Read(const std::string& line) {
        static const std::regex kHelp("# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) [^\\\\]+");
        static const std::regex kType(
            "# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|histogram)");
        static const std::regex kSample(
            "([a-zA-Z_:][a-zA-Z0-9_:]*)"
            "(\\{[a-z_]+=\"([^\"\\\\]|\\\\[\\\\n\"])*\"(,[a-z_]+=\"([^\"\\\\]|\\\\[\\\\n\"])*\")*"
            "\\})?"
            " (-?[0-9]+(\\.[0-9]+)?(e[-+][0-9]+)?)");
        std::smatch parts;
        if (std::regex_match(line, parts, kHelp)) {
            Begin(parts[1]);
        } else if (std::regex_match(line, parts, kType)) {
            if (parts[1] != family_ || !type_.empty()) Fail("misplaced: " + line);
            type_ = parts[2];
            const bool ends_in_total =
                family_.size() > 6 && family_.compare(family_.size() - 6, 6, "_total") == 0;
            if ((type_ == "counter") != ends_in_total) Fail("name of a counter: " + line);
        } else if (std::regex_match(line, parts, kSample)) {
            Take(parts[1], parts[1].str() + parts[2].str(), std::stod(parts[6]));
        } else {
            Fail("not a line: " + line);
        }
    }
    void Begin(const std::string& family) {
        if (!families_.insert(family).second) Fail("family in two places: " + family);
        family_ = family;
        type_.clear();
    }
    void Take(const std::string& name, const std::string& sample, double value) {
        const std::string rest =
            name.compare(0, family_.size(), family_) == 0 ? name.substr(family_.size()) : "?";
        const bool fits = type_ == "histogram"
                              ? rest == "_bucket" || rest == "_sum" || rest == "_count"
                              : !type_.empty() && rest.empty();
        if (!fits) Fail("sample of another family: " + sample);
        if (!samples_.emplace(sample, value).second) Fail("twice: " + sample);
        if (rest == "_bucket") buckets_.push_back(value);
    }
    void CheckHistogram() {
        if (!std::is_sorted(buckets_.begin(), buckets_.end())) Fail("buckets are not cumulative");
        const std::string name = "sentrel_undo_duration_seconds";
        if (samples_[name + "_bucket{le=\"+Inf\"}"] != samples_[name + "_count"]) Fail("+Inf");
    }

    std::string faults_;
    std::string family_;
    std::string type_;
    std::set<std::string> families_;
    std::map<std::string, double> samples_;
    std::vector<double> buckets_;
};

TEST(PrometheusText, StatusDocument_BecomesTheTextFormatToTheLetter) {
    const StrictReader read(
        Agent::FormatMetrics(Parse(R"({"version":"1\"2\\3\n4","started":1763714260,
        "health":{"state":"degraded","reasons":[{"code":"held","path":"/a"},{"code":"held","path":"/a"}]},
        "protection":{"on":true,"working":false,"last_undone":null},"watch_limit":8192,"backup":{"type":0,"local_pending":true,"remote_pending":true},
        "counters":{"events_received":9007199254740993,"restores_done":2,"overflows":0},
        "undo_latency":{"buckets":[{"le_ms":0.5,"count":1},{"le_ms":25,"count":3}],"count":4,"sum_ms":7.25},
        "tasks":[{"id":"t","queue_length":5},{"id":"broken"}],
        "notifications":[{"channel":"mail","working":false,"deliveries":3,"failures":1},7],
        "protected_paths":[{"path":"/a\n\"","held":2,"last_local_backup":1763714000,"last_look":null,
                            "state":"ready","backup_complete":true},
                           {"path":"/b","last_look":{"ended_at":1763714100}}]})")));
    EXPECT_EQ(read.Faults(), "");
    for (const auto& [sample, value] : std::map<std::string, double>{
             {R"(sentrel_info{version="1\"2\\3\n4"})", 1},
             {R"(sentrel_health{state="degraded"})", 1},
             {R"(sentrel_health{state="healthy"})", 0},
             {R"(sentrel_health_reason{code="held",path="/a"})", 1},
             {R"(sentrel_backup_pending{where="local"})", 1},
             {"sentrel_watch_limit", 8192},
             {"sentrel_protection_working", 0},
             {R"(sentrel_undone_total{how="restored"})", 2},
             {R"(sentrel_undo_duration_seconds_bucket{le="0.0005"})", 1},
             {R"(sentrel_undo_duration_seconds_bucket{le="+Inf"})", 4},
             {"sentrel_undo_duration_seconds_sum", 0.00725},
             {R"(sentrel_queue_length{task="t"})", 5},
             {R"(sentrel_notification_working{channel="mail"})", 0},
             {R"(sentrel_notifications_sent_total{channel="mail"})", 3},
             {R"(sentrel_held_changes{path="/a\n\""})", 2},
             {R"(sentrel_backup_timestamp_seconds{path="/a\n\""})", 1763714000},
             {R"(sentrel_reconcile_timestamp_seconds{path="/b"})", 1763714100}}) {
        ASSERT_EQ(read.Samples().count(sample), 1U) << sample;
        EXPECT_EQ(read.Samples().at(sample), value) << sample;
    }
    EXPECT_EQ(read.Samples().count(R"(sentrel_backup_pending{where="remote"})"), 0U) << "type 0";
    EXPECT_EQ(read.Samples().count("sentrel_last_undone_timestamp_seconds"), 0U) << "null";
}

TEST(PrometheusText, DocumentOfAnotherShape_StaysInTheFormat) {
    for (const char* text :
         {"{}", "[]", R"({"counters":[],"tasks":7,"protected_paths":[1,null,"x",{}]})",
          R"({"health":{"state":7,"reasons":[1]},"undo_latency":{"count":"x","buckets":[[]]}})",
          R"({"protected_paths":[{"path":"a"},{"path":"a","held":1},{"path":"a","held":2}]})"}) {
        EXPECT_EQ(StrictReader(Agent::FormatMetrics(Parse(text))).Faults(), "") << text;
    }
    Json::Value bytes;
    bytes["protected_paths"][0]["path"] = "\xff";
    bytes["protected_paths"][0]["held"] = 1;
    EXPECT_NE(Agent::FormatMetrics(bytes).find("path=\"\xEF\xBF\xBD\""), std::string::npos);
}

TEST(MetricsSettings, WhatIsWrong_IsNamedAndWritesNothing) {
    for (const auto& [text, fault] : std::vector<std::pair<const char*, const char*>>{
             {"{}", ""},
             {R"({"file":"/x/a.prom","period_seconds":5})", ""},
             {R"({"file":"a.prom"})", "/metrics/file"},
             {R"({"file":"/x/a.txt"})", "/metrics/file"},
             {R"({"file":7})", "/metrics/file"},
             {R"({"file":"/x/a.prom","period_seconds":0})", "/metrics/period_seconds"},
             {R"({"file":"/x/a.prom","other":1})", "/metrics/other"}}) {
        std::string error;
        const auto settings = Agent::MetricsSettings::Read(Parse(text), error);
        EXPECT_EQ(error.substr(0, std::strlen(fault)), fault) << text;
        EXPECT_EQ(error.empty(), *fault == '\0') << text << error;
        EXPECT_TRUE(error.empty() || settings.file.empty());
    }
}

TEST(MetricsFile, IsReadableWrittenOnceAPeriodAndRemovedAtTheEnd) {
    const test::TempDir dir;
    const std::string file = dir.Path("own.prom");
    std::filesystem::create_symlink("/etc/hostname", dir.Path(".morvane-metrics.tmp"));
    std::atomic<int> count{0};
    {
        const Agent::MetricsFile metrics({file, std::chrono::seconds(1)},
                                         [&] { return std::to_string(++count) + "\n"; });
        EXPECT_TRUE(test::WaitFor([&] { return test::TempDir::Read(file) == "2\n"; },
                                  std::chrono::seconds(20)));
        struct stat info {};
        ASSERT_EQ(::lstat(file.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode, S_IFREG | 0644U);
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
    EXPECT_EQ(Agent::WriteMetricsFile(dir.Path("missing/own.prom"), "x"), ENOENT);
    std::filesystem::create_directory(dir.Path("taken.prom"));
    EXPECT_NE(Agent::WriteMetricsFile(dir.Path("taken.prom"), "x"), 0);
    EXPECT_FALSE(std::filesystem::exists(dir.Path(".morvane-metrics.tmp")));
}

}  // namespace
