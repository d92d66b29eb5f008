#include "Session.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "AlarmFeed.h"
#include "AttackRun.h"
#include "Attacks.h"
#include "ResultTable.h"
#include "SiteSurvey.h"
#include "TreeState.h"
#include "sdk/text/JsonUtils.h"

namespace Demo {
namespace {

constexpr int kAllUndone = 0;
constexpr int kNotAllUndone = 1;
constexpr int kNotCarriedOut = 2;

/// Says what happens, as text or as one JSON object a line.
class Report {
  public:
    Report(std::ostream& out, bool json, const std::vector<Attack>& attacks,
           const std::string& site)
        : out_(out), json_(json), table_(attacks, site) {
        if (!json_) out_ << table_.Header() << std::endl;
    }

    void Add(const AttackResult& result) {
        out_ << (json_ ? SDK::JsonUtils::JsonToString(table_.ToJson(result)) : table_.Line(result))
             << std::endl;
        if (!result.failure.empty()) Fail(result.name + ": " + result.failure);
    }

    void Fail(const std::string& problem) { problems_.push_back(problem); }

    /// The closing lines and the exit code.
    int Close(std::size_t attacks, std::size_t objects) {
        if (json_) {
            Json::Value line;
            line["attacks"] = static_cast<Json::UInt64>(attacks);
            line["objects_compared"] = static_cast<Json::UInt64>(objects);
            line["problems"] = Json::Value(Json::arrayValue);
            for (const std::string& problem : problems_) line["problems"].append(problem);
            out_ << SDK::JsonUtils::JsonToString(line) << std::endl;
        } else {
            CloseText(attacks, objects);
        }
        return problems_.empty() ? kAllUndone : kNotAllUndone;
    }

  private:
    void CloseText(std::size_t attacks, std::size_t objects) {
        out_ << "\n";
        for (const std::string& problem : problems_)
            out_ << "NOT AS IT SHOULD BE: " << problem << "\n";
        if (problems_.empty()) {
            out_ << "All " << attacks << " attacks were undone and reported. The " << objects
                 << " files, directories and links of the site\nare as they were; what the policy "
                    "excludes was left alone, and no command that stands in\na name was run.\n";
        }
        out_ << std::flush;
    }

    std::ostream& out_;
    bool json_;
    ResultTable table_;
    std::vector<std::string> problems_;
};

/// What a visitor leaves where the policy excludes it: it must stay, and no alarm may name it.
std::vector<std::string> LeaveExcludedFiles(const SessionOptions& options) {
    std::vector<std::string> left;
    for (const std::string& subdir : options.excluded_subdirs) {
        left.push_back(options.site + "/" + subdir + "/visitor.txt");
    }
    for (const std::string& suffix : options.excluded_suffixes) {
        left.push_back(options.site + "/visitor" + suffix);
    }
    for (const std::string& path : left) {
        std::error_code error;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
        std::ofstream(path, std::ios::trunc) << "left by a visitor\n";
    }
    return left;
}

void CheckExcluded(const std::vector<std::string>& left, const AlarmFeed& feed, Report& report) {
    for (const std::string& path : left) {
        const auto names_it = [&](const Alarm& alarm) { return alarm.path == path; };
        if (std::any_of(feed.Alarms().begin(), feed.Alarms().end(), names_it)) {
            report.Fail("an alarm names " + path + ", which the policy excludes");
        }
    }
}

/// What the planted directory link led to is no part of the site: nothing may be deleted there, and
/// nothing written.
void CheckBystander(const std::string& bystander, Report& report) {
    std::error_code error;
    const auto folder = std::filesystem::path(bystander).parent_path();
    if (!std::filesystem::exists(bystander, error)) {
        report.Fail("a planted link was followed: " + bystander + " was deleted");
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.path() == bystander) continue;
        report.Fail("a planted link was followed: " + entry.path().string() + " was written");
    }
}

/// No name may ever have come to a shell.
void CheckMarks(const OddNames& names, Report& report) {
    for (const std::string& mark : names.Run()) {
        report.Fail("a command that stands in a name was run: it made " + mark);
    }
}

}  // namespace

int RunSession(const SessionOptions& options, std::ostream& out) {
    std::string error;
    Victims victims;
    const SurveyRequest survey{options.site, options.excluded_subdirs, options.excluded_suffixes,
                               kFilesNeeded, kDirectoriesNeeded};
    AlarmFeed feed(options.socket);
    if (!ChooseVictims(survey, victims, error) || !feed.Start(error)) {
        out << "error: " << error << std::endl;
        return kNotCarriedOut;
    }
    std::filesystem::create_directories(options.scratch);
    const std::vector<std::string> left = LeaveExcludedFiles(options);
    std::vector<Attack> attacks = PlanAttacks(victims, options.scratch, options.file);
    const OddNames names(options.site, options.scratch);
    if (names.AreThere()) {
        const std::vector<Attack> odd = PlanOddAttacks(names, options.scratch);
        attacks.insert(attacks.end(), odd.begin(), odd.end());
    }
    const std::string bystander = options.scratch + "/elsewhere/bystander.txt";
    std::ofstream(bystander) << "no part of the site\n";
    const TreeState before = TakeState(options.site);
    Report report(out, options.json, attacks, options.site);
    const AgentClient agent(options.socket);
    AttackRun run(feed, agent, options.deadline);
    for (const Attack& attack : attacks) report.Add(run.Run(attack));
    const std::string difference = run.WaitUntilAs(before, options.site);
    if (!difference.empty()) report.Fail("the site is not as it was: " + difference);
    CheckExcluded(left, feed, report);
    CheckBystander(bystander, report);
    CheckMarks(names, report);
    return report.Close(attacks.size(), before.size());
}

}  // namespace Demo
