#include <sdk/files/FileUtils.h>

#include <climits>
#include <iostream>

#include "ctl/baselines/PolicyPaths.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/policies/PolicyChange.h"
#include "ctl/commands/policies/ProtectCommands.h"
#include "ctl/commands/policies/ProtectPlan.h"
#include "ctl/commands/policies/ProtectWait.h"
#include "ctl/output/Terminal.h"
#include "ctl/protect/PathProgress.h"

namespace Ctl {

namespace {

constexpr char kRsync[] = "/usr/bin/rsync";

constexpr char kApproval[] =
    "The site as it is now becomes the good state: look at it before you go on.\n"
    "From then on changes and additions are undone, also during the first copy.\n";
constexpr char kReportOnly[] =
    "The site as it is now becomes the good state: look at it before you go on.\n";

/// False, printed, when something waits for a decision that applying a policy would take.
bool MayApprove(const Json::Value& status) {
    const std::string why = WhyNothingCanBeApproved(status, "");
    if (why.empty()) return true;
    std::cerr
        << "Nothing was changed: applying a policy approves the state of all protected paths, "
           "and there is something to decide first. "
        << why << "." << std::endl;
    return false;
}

/// Puts the entry, and the host's rsync, into the policy.
int PutInto(ProtectionPolicy& policy, const ProtectedEntry& entry) {
    const std::string program = CanonicalPath(kRsync);
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(program, digest, LONG_MAX) != 0) {
        std::cerr << kRsync << " is missing; install it first: apt-get install rsync" << std::endl;
        return kExitFailed;
    }
    policy.UseRsync(program, digest);
    policy.SwitchOn();
    policy.Put(entry);
    return kExitOk;
}

int ApplyAndWait(const ControlClient& client, const PolicyChange& change, const ProtectPlan& plan,
                 const std::string& key) {
    const int applied = change.Apply(key);
    if (applied == kExitOff) {
        std::cerr << "The agent took the policy, but the protection is off; see morvanectl status."
                  << std::endl;
    }
    if (applied != kExitOk) return applied;
    return AwaitProtected(client, plan.entry, plan.survey);
}

}  // namespace

int Protect(const ControlClient& client, const ProtectOptions& options) {
    PolicyChange change(client);
    if (const int failed = change.Read(); failed != kExitOk) return failed;
    const ProtectPlan plan = MakePlan(options, change.Policy());
    if (!plan.error.empty()) {
        std::cerr << plan.error << std::endl;
        return plan.exit_code;
    }
    if (plan.is_unchanged) {
        std::cout << Printable(plan.entry.path)
                  << " is protected like this already; nothing was changed." << std::endl;
        return kExitOk;
    }
    if (!MayApprove(change.Status())) return kExitRejected;
    std::cout << FormatPlan(plan, change.Policy()) << std::flush;
    if (const int failed = PutInto(change.Policy(), plan.entry); failed != kExitOk) return failed;
    if (const int refused = change.Check(); refused != kExitOk) return refused;
    if (options.dry_run) {
        std::cout << "Nothing was changed: this was a dry run." << std::endl;
        return kExitOk;
    }
    std::cout << (options.report_only ? kReportOnly : kApproval) << std::flush;
    if (!options.yes) {
        if (const int declined = AskToGoOn(); declined != kExitOk) return declined;
    }
    return ApplyAndWait(client, change, plan, options.key);
}

}  // namespace Ctl
