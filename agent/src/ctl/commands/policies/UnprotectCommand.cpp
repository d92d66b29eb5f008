#include <sdk/files/PathUtils.h>

#include <iostream>

#include "ctl/baselines/PolicyPaths.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/policies/PolicyChange.h"
#include "ctl/commands/policies/ProtectCommands.h"
#include "ctl/commands/policies/ProtectPlan.h"
#include "ctl/output/Terminal.h"
#include "ctl/protect/PathProgress.h"

namespace Ctl {

using SDK::PathUtils;

namespace {

void PrintUnknown(const std::string& path, const ProtectionPolicy& policy) {
    std::cerr << Printable(path) << " is not protected.";
    const auto entries = policy.Entries();
    for (std::size_t at = 0; at < entries.size(); ++at) {
        std::cerr << (at == 0 ? " The policy names: " : ", ") << Printable(entries[at].path);
    }
    std::cerr << std::endl;
}

std::string CopiesOf(const ProtectedEntry& entry) {
    return PathUtils::WithoutTrailingSlash(entry.backup_path) + CanonicalPath(entry.path);
}

void PrintPlan(const ProtectedEntry& entry, const ProtectionPolicy& rest) {
    std::cout << "Take " << Coloured(Printable(entry.path), Colour::kBold)
              << " out of the protection\n"
              << "  changes   stay, and raise no alarm\n";
    if (!entry.backup_path.empty()) {
        std::cout << "  copies    stay in " << Printable(CopiesOf(entry)) << "\n";
    }
    bool has_others = false;
    for (const ProtectedEntry& other : rest.Entries()) {
        if (!other.is_enabled) continue;
        std::cout << "  " << (has_others ? "    " : "also") << "      " << Printable(other.path)
                  << " stays protected; its state as it is now becomes the good state\n";
        has_others = true;
    }
    std::cout << std::flush;
}

}  // namespace

int Unprotect(const ControlClient& client, const UnprotectOptions& options) {
    PolicyChange change(client);
    if (const int failed = change.Read(); failed != kExitOk) return failed;
    const std::string path = PolicyPathOf(options.path);
    const auto entry = change.Policy().Find(path);
    if (!entry) {
        PrintUnknown(path, change.Policy());
        return kExitRejected;
    }
    const std::string why = WhyNothingCanBeApproved(change.Status(), CanonicalPath(entry->path));
    if (!why.empty()) {
        std::cerr
            << "Nothing was changed: applying a policy approves the state of the other paths, "
               "and there is something to decide first. "
            << why << "." << std::endl;
        return kExitRejected;
    }
    change.Policy().Remove(entry->path);
    PrintPlan(*entry, change.Policy());
    if (!options.yes) {
        if (const int declined = AskToGoOn(); declined != kExitOk) return declined;
    }
    const int applied = change.Apply(options.key);
    if (applied != kExitOk && applied != kExitOff) return applied;
    std::cout << Printable(entry->path) << " is no longer protected."
              << (applied == kExitOff ? " Nothing is protected now." : "");
    if (!entry->backup_path.empty()) {
        std::cout << " Its copies stay in " << Printable(CopiesOf(*entry)) << ".";
    }
    std::cout << std::endl;
    return kExitOk;
}

}  // namespace Ctl
