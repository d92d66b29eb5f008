// Owns the waiting for the first copy and its signals. It must not change anything.
#include "ctl/commands/policies/ProtectWait.h"

#include <poll.h>
#include <sdk/text/StrUtils.h>
#include <sdk/time/TimeUtils.h>

#include <atomic>
#include <csignal>
#include <iostream>

#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"
#include "ctl/protect/CopyMeter.h"
#include "ctl/protect/PathProgress.h"

namespace Ctl {

namespace {

using Stage = PathProgress::Stage;

constexpr int kPollMs = 250;
constexpr std::int64_t kPatienceMs = 20000;  ///< with a problem, or while the path is not listed
constexpr double kMsPerSecond = 1000;

/// Set by a signal, which any thread may take.
std::atomic<int> interrupted{0};

/// The second signal ends the program at once.
extern "C" void NoteSignal(int signal) {
    interrupted = 1;
    std::signal(signal, SIG_DFL);
}

/// The last look at the agent.
struct Look {
    Answer answer;
    PathProgress progress;
    bool was_interrupted = false;

    bool IsAnswered() const {
        return answer.kind == Answer::Kind::kAnswered && answer.status == 200;
    }
};

/// Looks until the path is ready, the agent is gone, a problem lasts, or a signal comes.
Look AwaitEnd(const ControlClient& client, const std::string& path, CopyMeter& meter) {
    std::int64_t troubled_since = SDK::TimeUtils::GetMonotonicMs();
    while (true) {
        Look look;
        look.answer = client.Get("/v1/status");
        if (!look.IsAnswered()) return look;
        look.progress = ProgressOf(look.answer.body, path);
        meter.LookAt(look.progress.copies);
        const std::int64_t now = SDK::TimeUtils::GetMonotonicMs();
        const Stage stage = look.progress.stage;
        if (stage == Stage::kReady || stage == Stage::kPaused) return look;
        const bool is_troubled = stage == Stage::kUnknown || !look.progress.problem.empty();
        if (!is_troubled) troubled_since = now;
        if (now - troubled_since >= kPatienceMs) return look;
        look.was_interrupted = interrupted != 0;
        if (look.was_interrupted) return look;
        ::poll(nullptr, 0, kPollMs);
    }
}

int PrintReady(const Look& look, const ProtectedEntry& entry, const SurveyResult& survey,
               double seconds) {
    std::cout << (entry.auto_restore ? Coloured("Protected", Colour::kGreen)
                                     : Coloured("Reported only", Colour::kYellow))
              << ": " << Printable(entry.path) << " is watched and copied ("
              << Counted(static_cast<long long>(survey.files), "file") << ", "
              << FormatBytes(static_cast<double>(survey.bytes)) << " in "
              << SDK::StrUtils::Format("%.1f s", seconds) << ")." << std::endl;
    for (const Json::Value& reason : look.progress.reasons) {
        std::cerr << "warning: " << Text(reason, "text") << "\n";
    }
    return kExitOk;
}

int PrintNotReady(const Look& look, const std::string& path) {
    const std::string name = Printable(path);
    if (look.was_interrupted) {
        std::cerr << "The protection of " << name
                  << " is on, and the agent goes on with the first copy without this command. "
                     "morvanectl status shows when it is complete."
                  << std::endl;
        return kExitInterrupted;
    }
    if (look.progress.stage == Stage::kPaused) {
        std::cerr << "The policy is in force, but its schedule pauses the protection now; "
                     "morvanectl status tells until when."
                  << std::endl;
        return kExitOff;
    }
    const std::string why =
        look.progress.problem.empty() ? "the agent does not list the path" : look.progress.problem;
    std::cerr << "The policy is in force, but " << name << " is not fully protected: " << why
              << ". The agent goes on trying; see morvanectl status." << std::endl;
    return kExitFailed;
}

}  // namespace

int AwaitProtected(const ControlClient& client, const ProtectedEntry& entry,
                   const SurveyResult& survey) {
    interrupted = 0;
    std::signal(SIGINT, NoteSignal);
    std::signal(SIGTERM, NoteSignal);
    // A reader of this may press Ctrl-C at once.
    std::cout << "The protection is on. The agent makes the first copy." << std::endl;
    const std::int64_t begun = SDK::TimeUtils::GetMonotonicMs();
    CopyMeter meter(survey.files + survey.directories);
    Look look;
    {
        const ProgressDisplay display([&meter] { return meter.Measure(); });
        look = AwaitEnd(client, entry.path, meter);
        meter.Stop();
    }
    if (!look.IsAnswered()) {
        std::cerr << "The policy was applied; then the agent stopped answering. ";
        return PrintFailure(look.answer);
    }
    if (look.progress.stage != Stage::kReady) return PrintNotReady(look, entry.path);
    return PrintReady(look, entry, survey,
                      static_cast<double>(SDK::TimeUtils::GetMonotonicMs() - begun) / kMsPerSecond);
}

}  // namespace Ctl
