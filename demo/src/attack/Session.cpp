// Owns the order of a scripted attack and its summary. Must not know single attacks
// (Attacks.cpp) or how one is observed (AttackRun). Runs on the main thread.
#include "attack/Session.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "agent/AlarmFeed.h"
#include "attack/AttackRun.h"
#include "attack/Attacks.h"
#include "attack/ResultTable.h"
#include "sdk/text/JsonUtils.h"
#include "site/SiteSurvey.h"
#include "site/TreeState.h"

namespace Demo {
namespace {

constexpr int kAllUndone = 0;
constexpr int kNotAllUndone = 1;
constexpr int kNotCarriedOut = 2;

/// Prints the results, as text or as one JSON object per line.
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

    /// Prints the summary; returns the exit code.
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

/// Writes files where the policy excludes them: they must stay, and no alarm may name them.
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

/// The target of the planted directory link is outside the site: nothing may be deleted or written
/// there.
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

/// No name may have reached a shell.
void CheckMarkers(const OddNames& names, Report& report) {
    for (const std::string& marker : names.ExecutedMarkers()) {
        report.Fail("a command that stands in a name was run: it made " + marker);
    }
}

}  // namespace

int RunSession(const SessionOptions& options, std::ostream& out) {
    std::string error;
    AttackTargets targets;
    const SurveyRequest survey{options.site, options.excluded_subdirs, options.excluded_suffixes,
                               kFilesNeeded, kDirectoriesNeeded};
    AlarmFeed feed(options.socket);
    if (!ChooseTargets(survey, targets, error) || !feed.Start(error)) {
        out << "error: " << error << std::endl;
        return kNotCarriedOut;
    }
    std::filesystem::create_directories(options.scratch);
    const std::vector<std::string> left = LeaveExcludedFiles(options);
    std::vector<Attack> attacks = PlanAttacks(targets, options.scratch, options.file);
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
    CheckMarkers(names, report);
    return report.Close(attacks.size(), before.size());
}

}  // namespace Demo
