#include <sdk/text/StrUtils.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <iostream>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/baselines/GenerationComparison.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using Baseline::Generation;
using SDK::StrUtils;

namespace {

constexpr double kMsPerSecond = 1000;

bool IsListedBefore(const Generation& a, const Generation& b) {
    if (!a || !b) return static_cast<bool>(a);
    const Baseline::ManifestInfo& left = a.manifest->Info();
    const Baseline::ManifestInfo& right = b.manifest->Info();
    if (left.real_path != right.real_path) return left.real_path < right.real_path;
    if (left.backup_path != right.backup_path) return left.backup_path < right.backup_path;
    return a.number < b.number;
}

std::string TitleOf(const Generation& generation) {
    const Baseline::ManifestInfo& info = generation.manifest->Info();
    const std::string root = LiveRoot(info);
    const std::string note = ApprovedStates::HasLeftThePolicy(root)
                                 ? "; no longer protected, see \"baseline forget\""
                                 : "";
    return Printable(root) + ", copies in " + Printable(info.backup_path) + note + "\n";
}

std::string RowOf(const Generation& generation, long long now_ms) {
    const Baseline::ManifestInfo& info = generation.manifest->Info();
    return StrUtils::Format("  generation %-4u %-19s  %9zu objects  signature good  %s\n",
                            generation.number, ShortTime(info.created * 1000, now_ms).c_str(),
                            generation.manifest->Size(), Printable(info.approval).c_str());
}

/// The one state that the options mean; false after a sentence.
bool Choose(const ApprovedStates& states, const std::vector<std::string>& path,
            ApprovedPart& chosen) {
    std::vector<ApprovedPart> parts;
    if (path.empty()) {
        const ApprovedStates::Choice choice = ProtectedStates(states);
        for (const Generation& generation : choice.states) parts.push_back({generation, ""});
    } else {
        parts = states.Holding(states.Resolve(path.front()));
    }
    if (parts.size() == 1) {
        chosen = parts.front();
        return true;
    }
    std::cerr << (parts.empty() ? "There is no approved state of it."
                                : "There are several protected paths; name one with --path.")
              << std::endl;
    return false;
}

Generation Load(const ApprovedStates& states, const ApprovedPart& chosen, unsigned int number) {
    const Baseline::ManifestInfo& info = chosen.generation.manifest->Info();
    const auto numbers = states.Store().Numbers(info.real_path, info.backup_path);
    Generation generation;
    if (std::find(numbers.begin(), numbers.end(), number) == numbers.end()) {
        generation.problem = "it is not kept";
    } else {
        generation = states.Store().Get(info.real_path, info.backup_path, number);
    }
    if (!generation) {
        std::cerr << "Generation " << number << " of " << Printable(LiveRoot(info))
                  << " cannot be used: " << Printable(generation.problem) << ".\n";
    }
    return generation;
}

}  // namespace

int ListGenerations() {
    const ApprovedStates states;
    std::vector<Generation> kept;
    if (states.IsReadable()) kept = states.Store().AllKept();
    if (kept.empty()) {
        PrintProblems(states.Problems());
        return kExitFailed;
    }
    std::sort(kept.begin(), kept.end(), IsListedBefore);
    const long long now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    std::string title;
    bool is_good = states.Problems().empty();
    for (const Generation& generation : kept) {
        if (!generation) {
            std::cout << "  generation " << generation.number
                      << "  cannot be used: " << Printable(generation.problem) << "\n";
            is_good = false;
            continue;
        }
        const std::string its_title = TitleOf(generation);
        if (its_title != title) std::cout << (title = its_title);
        std::cout << RowOf(generation, now_ms);
    }
    std::cout << std::flush;
    return is_good ? kExitOk : kExitFailed;
}

int DiffGenerations(const GenerationDiffOptions& options) {
    const ApprovedStates states;
    PrintProblems(states.Problems());
    ApprovedPart chosen;
    if (!Choose(states, options.path, chosen)) return kExitFailed;
    const Generation before = Load(states, chosen, options.before);
    const Generation after =
        options.after == 0 ? chosen.generation : Load(states, chosen, options.after);
    if (!before || !after) return kExitFailed;
    const std::int64_t begun = SDK::TimeUtils::GetMonotonicMs();
    DifferenceList list(options.listing.limit);
    const std::string root = LiveRoot(after.manifest->Info());
    Effort effort;
    effort.objects = GenerationComparison(*before.manifest, *after.manifest, chosen.below)
                         .Run([&](const Baseline::Difference& one) {
                             list.Add({root, one});
                         });
    effort.seconds = static_cast<double>(SDK::TimeUtils::GetMonotonicMs() - begun) / kMsPerSecond;
    WriteDifferences(std::cout, list, options.listing.json);
    std::cout << FormatSummary(list, effort, options.listing.json) << std::flush;
    return list.Total() == 0 ? kExitOk : kExitDifferences;
}

}  // namespace Ctl
