#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iostream>
#include <thread>

#include "ctl/baselines/Verification.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using Baseline::TreeVerifier;

namespace {

constexpr unsigned int kMostThreads = 4;

/// Set by a signal, which any thread may take.
std::atomic<int> interrupted{0};

/// The second signal ends the program at once.
extern "C" void Interrupt(int signal) {
    interrupted = 1;
    std::signal(signal, SIG_DFL);
}

/// What was compared with what.
void PrintStates(const ApprovedStates& states, const std::vector<ApprovedPart>& parts) {
    const long long now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    for (const ApprovedPart& part : parts) {
        const Baseline::ManifestInfo& info = part.generation.manifest->Info();
        std::cout << "generation " << part.generation.number << " of " << Printable(LiveRoot(info))
                  << ", approved " << ShortTime(info.created * 1000, now_ms) << ": "
                  << Printable(info.approval) << "\n";
        if (states.Store().IsCopying(info.real_path, info.backup_path)) {
            std::cerr << "note: a newer state of " << Printable(LiveRoot(info))
                      << " is being copied; it is not approved until that is complete\n";
        }
    }
}

}  // namespace

ApprovedStates::Choice ProtectedStates(const ApprovedStates& states) {
    ApprovedStates::Choice choice = states.Protected();
    for (const std::string& path : choice.not_approved) {
        std::cerr << "There is no usable approved state of " << Printable(path) << ".\n";
    }
    for (const std::string& path : choice.left_out) {
        std::cerr << "note: the policy no longer names " << Printable(path)
                  << ", so it is left out; give the path to include it\n";
    }
    return choice;
}

void PrintProblems(const std::vector<std::string>& problems) {
    for (const std::string& problem : problems) std::cerr << Printable(problem) << "\n";
}

bool SelectParts(const ApprovedStates& states, const std::vector<std::string>& paths,
                 std::vector<ApprovedPart>& parts) {
    if (paths.empty()) {
        const ApprovedStates::Choice choice = ProtectedStates(states);
        for (const auto& generation : choice.states) parts.push_back({generation, ""});
        return states.Problems().empty() && choice.not_approved.empty();
    }
    bool found = true;
    for (const std::string& path : paths) {
        const std::string resolved = states.Resolve(path);
        std::vector<ApprovedPart> held = states.Holding(resolved);
        if (held.empty()) {
            std::cerr << "There is no approved state of " << Printable(resolved) << ".\n";
            found = false;
        }
        std::move(held.begin(), held.end(), std::back_inserter(parts));
    }
    return found;
}

int Verify(const VerifyOptions& options) {
    const ApprovedStates states;
    PrintProblems(states.Problems());
    std::vector<ApprovedPart> parts;
    const bool is_all_found = SelectParts(states, options.paths, parts);
    if (parts.empty()) return kExitFailed;
    interrupted = 0;
    std::signal(SIGINT, Interrupt);
    DifferenceList list(options.listing.limit);
    Verification verification(
        parts,
        {options.copies ? TreeVerifier::Side::kCopies : TreeVerifier::Side::kLive,
         options.full || options.copies,
         std::clamp(std::thread::hardware_concurrency(), 1U, kMostThreads),
         [] { return interrupted != 0; }},
        list);
    bool is_complete = false;
    {
        const ProgressDisplay display([&] { return verification.Progress(); });
        is_complete = verification.Run();
    }
    const bool json = options.listing.json;
    WriteDifferences(std::cout, list, json);
    if (!json) PrintStates(states, parts);
    std::cout << FormatSummary(list, verification.Spent(), json) << std::flush;
    PrintProblems(verification.Problems());
    if (!is_complete || !is_all_found) return kExitFailed;
    return list.Total() == 0 ? kExitOk : kExitDifferences;
}

}  // namespace Ctl
