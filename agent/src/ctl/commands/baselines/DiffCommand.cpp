#include <iostream>

#include "ctl/baselines/PageDifference.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

int DiffPage(const std::string& path) {
    const ApprovedStates states;
    PrintProblems(states.Problems());
    const std::string resolved = states.Resolve(path);
    const std::vector<ApprovedPart> parts = states.Holding(resolved);
    if (parts.size() != 1) {
        std::cerr << (parts.empty() ? "There is no approved state of "
                                    : "There are several protected paths below ")
                  << Printable(resolved) << ".\n";
        return kExitFailed;
    }
    PageDifference difference(parts.front());
    if (!difference.Compare()) {
        std::cerr << Printable(difference.Problem()) << std::endl;
        return kExitFailed;
    }
    if (difference.IsCopyAltered()) {
        std::cerr << "note: the backup copy is not what was approved; see verify --copies\n";
    }
    for (const std::string& line : difference.Lines()) std::cout << Printable(line, true) << "\n";
    if (difference.Lines().empty()) std::cout << "equal\n";
    std::cout << std::flush;
    return difference.Lines().empty() ? kExitOk : kExitDifferences;
}

}  // namespace Ctl
