#include <ctl/commands/reports/IncidentPrinter.h>
#include <ctl/output/IncidentFormat.h>
#include <ctl/output/Moment.h>
#include <ctl/output/Terminal.h>
#include <gtest/gtest.h>
#include <sdk/text/JsonUtils.h>

#include <cstdlib>
#include <ctime>

namespace {

constexpr long long kNow = 1763714260;  // 2025-11-21 08:37:40 UTC

class Alarms : public testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        Ctl::SetColours(false);
    }
    static Json::Value Report(long long second, const std::string& action, const std::string& path,
                              const std::string& outcome, int count = 1) {
        Json::Value document;
        document["event_count"] = count;
        document["file_info"][0]["action"] = action;
        document["file_info"][0]["file_path"] = path;
        Json::Value report;
        report["time_ms"] = static_cast<Json::Int64>((kNow + second) * 1000);
        report["body"] = SDK::JsonUtils::JsonToString(document);
        report["outcome"] = outcome;
        report["duration_ms"] = 2.5;
        return report;
    }
    static std::string Lines(const std::vector<Json::Value>& reports, std::size_t most, bool each) {
        Ctl::Incidents incidents({"/srv/a/", "/srv/b/"}, most, each);
        for (const Json::Value& report : reports) incidents.Add(Ctl::ReadAlarm(report), report);
        std::string lines;
        for (const auto& one : incidents.Kept()) lines += Ctl::FormatIncident(one, kNow * 1000);
        return lines;
    }
    const std::vector<Json::Value> storm_ = {
        Report(0, "modify", "/srv/a/x/1.html", "restored"),
        Report(1, "add", "/srv/b/shell.php", "removed"),
        Report(30, "add", "/srv/a/x/y/evil\x1b", "removal failed", 3),
        Report(59, "modify", "/srv/a/x/2.html", "restored"),
        Report(60, "delete", "/srv/a/z", "restored")};
};

TEST_F(Alarms, ChangesOfOneTreeWithinAMinute_AreOneLineWithAllCounts) {
    const std::string first =
        "08:37:40  5 changes  /srv/a/x/  3 add, 2 modify; 3 removal failed, 2 restored, slowest "
        "2.5 "
        "ms\n";
    const std::string rest =
        "08:37:41  add        /srv/b/shell.php  removed in 2.5 ms\n"
        "08:38:40  delete     /srv/a/z  restored in 2.5 ms\n";
    EXPECT_EQ(Lines(storm_, 0, false), first + rest);
    EXPECT_EQ(Lines(storm_, 2, false), rest);
    const std::string each = Lines(storm_, 0, true);
    EXPECT_EQ(std::count(each.begin(), each.end(), '\n'), 5);
    EXPECT_NE(each.find("3 changes  /srv/a/x/y/evil\\x1b"), std::string::npos) << each;
}

TEST_F(Alarms, FollowedStorm_ShowsAFewAtOnceAndTheRestInSummaries) {
    std::vector<std::string> lines;
    Ctl::IncidentPrinter printer({"/srv/a/"},
                                 [&](const std::string& one) { lines.push_back(one); });
    const long long now = kNow * 1000;
    for (int at = 0; at < 20; ++at) {
        const Json::Value report = Report(0, "add", "/srv/a/f" + std::to_string(at), "removed");
        printer.Add(Ctl::ReadAlarm(report), report, now);
    }
    EXPECT_EQ(lines.size(), Ctl::IncidentPrinter::kShownEach);
    printer.PrintDue(now + 9000);
    EXPECT_EQ(lines.size(), Ctl::IncidentPrinter::kShownEach);
    printer.PrintDue(now + 10000);
    printer.PrintDue(now + 20000);
    ASSERT_EQ(lines.size(), Ctl::IncidentPrinter::kShownEach + 1);
    EXPECT_EQ(lines.back(),
              "08:37:40  15 more changes  /srv/a/  15 add; 15 removed, slowest 2.5 ms\n");
    printer.PrintDue(now + 60000);
    const Json::Value late = Report(61, "add", "/srv/a/late", "removed");
    printer.Add(Ctl::ReadAlarm(late), late, now + 61000);
    EXPECT_NE(lines.back().find("late"), std::string::npos) << "a new incident is shown at once";
}

TEST_F(Alarms, Filter_TakesPathActionOutcomeAndTime) {
    const auto alarm = Ctl::ReadAlarm(Report(0, "add", "/srv/a/dir/", "removal failed"));
    const long long at = kNow * 1000;
    for (const auto& [filter, matches] : std::vector<std::pair<Ctl::AlarmFilter, bool>>{
             {{}, true},
             {{"/srv/a", "", "", 0, 0}, true},
             {{"/srv/a/dir", "add", "failed", at, at}, true},
             {{"/srv/a/di", "", "", 0, 0}, false},
             {{"", "modify", "", 0, 0}, false},
             {{"", "", "restored", 0, 0}, false},
             {{"", "", "", at + 1, 0}, false},
             {{"", "", "", 0, at - 1}, false}}) {
        EXPECT_EQ(filter.Matches(alarm), matches) << filter.path << filter.action << filter.outcome;
    }
}

TEST_F(Alarms, Moments_AreBackInTimeOrLocalTimes) {
    for (const auto& [text, moment] :
         std::vector<std::pair<const char*, long long>>{{"90", kNow - 90},
                                                        {"90s", kNow - 90},
                                                        {"30m", kNow - 1800},
                                                        {"2h", kNow - 7200},
                                                        {"3d", kNow - 259200},
                                                        {"1763714000", 1763714000},
                                                        {"08:37", kNow - 40},
                                                        {"2025-11-21", kNow - 31060},
                                                        {"2025-11-21 08:37:40", kNow}}) {
        EXPECT_EQ(Ctl::ParseMoment(text, kNow), moment) << text;
    }
    for (const char* wrong : {"", "h", "-1", "+5", "2x", "1.5h", "25:70", "2025-13-01", "2h ",
                              "99999999999999999999", "9999999999w"}) {
        EXPECT_FALSE(Ctl::ParseMoment(wrong, kNow)) << wrong;
    }
}

}  // namespace
