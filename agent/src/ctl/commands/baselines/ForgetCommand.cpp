// Removes what is kept of a path that is no longer protected. It must not touch the path itself nor
// its backup copies.
#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <vector>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/PolicyPaths.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

using Baseline::BaselineStore;

/// The replaced copies first: as long as they are there, the path is listed.
int Forget(const BaselineStore& store, const Baseline::ManifestInfo& info) {
    const std::string kept = std::string(BaselineStore::kReplacedCopies) + "/" +
                             BaselineStore::NameOf(info.real_path, info.backup_path);
    if (SDK::DirUtils::DeleteBeneath(info.backup_path, kept) != 0 && errno != ENOENT) return errno;
    return store.Forget(info.real_path, info.backup_path) == 0 ? 0 : errno;
}

}  // namespace

int ForgetPath(const std::string& path) {
    const ApprovedStates states;
    std::vector<Baseline::Generation> known;
    if (states.IsReadable()) known = states.Store().All();
    const std::string root = SDK::PathUtils::WithoutTrailingSlash(path);
    bool is_known = false;
    for (const Baseline::Generation& generation : known) {
        if (!generation || LiveRoot(generation.manifest->Info()) != root) continue;
        is_known = true;
        const auto named = PolicyPaths();
        if (named && named->count(CanonicalPath(root)) > 0) {
            std::cerr << Printable(root) << " is protected; nothing was removed." << std::endl;
            return kExitRejected;
        }
        const int error = Forget(states.Store(), generation.manifest->Info());
        if (error == 0) continue;
        std::cerr << "What is kept of " << Printable(root)
                  << " cannot be removed: " << std::strerror(error) << "." << std::endl;
        return kExitFailed;
    }
    if (!is_known) {
        PrintProblems(states.Problems());
        std::cerr << "There is no approved state of " << Printable(root) << "." << std::endl;
        return kExitFailed;
    }
    std::cout << "The approved states of " << Printable(root) << " are forgotten." << std::endl;
    return kExitOk;
}

}  // namespace Ctl
