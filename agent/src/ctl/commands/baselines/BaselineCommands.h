#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/client/ControlClient.h"

namespace Ctl {

/// How differences are listed.
struct ListingOptions {
    static constexpr std::size_t kDefaultLimit = 100;
    std::size_t limit = kDefaultLimit;  ///< lines; 0: all
    bool json = false;
};

struct VerifyOptions {
    std::vector<std::string> paths;  ///< empty: all that is protected
    bool full = false;
    bool copies = false;
    ListingOptions listing;
};

struct GenerationDiffOptions {
    unsigned int before = 0;
    unsigned int after = 0;         ///< 0: the newest
    std::vector<std::string> path;  ///< at most one; needed when there are several
    ListingOptions listing;
};

/// What the agent shall do with the state of a site.
struct DecisionOptions {
    std::string action;  ///< "accept", "restore" or "rollback"
    std::vector<std::string> paths;
    bool all = false;
    unsigned int generation = 0;  ///< of a rollback
    bool is_dry_run = false;      ///< of a rollback
    std::string key = {};         ///< the file of the private key that is kept elsewhere
};

/// Lost backup copies are fetched from the backup server.
struct FromServerOptions {
    std::vector<std::string> paths;  ///< empty: all that is protected
    bool is_dry_run = false;         ///< only list what is lost
    bool yes = false;                ///< no question
};

/// The commands on approved states. Each prints its result to standard output and errors to
/// standard error, and returns the exit code.

/// Compares the site, or the copies, with the newest approved state. Needs no agent.
int Verify(const VerifyOptions& options);

/// Shows what a page has differently from its backup copy.
int DiffPage(const std::string& path);

/// Lists all generations that are kept.
int ListGenerations();

/// Compares two generations of one protected path.
int DiffGenerations(const GenerationDiffOptions& options);

/// Asks the agent and blocks until it has finished.
int Decide(const ControlClient& client, const DecisionOptions& options);

/// Fetches lost copies, checks them against the approved state and puts them in place. The site is
/// not touched. Needs no agent.
int RestoreFromServer(const FromServerOptions& options);

/// The same as Decide after a question at the terminal, unless `is_confirmed`; without a path for
/// the only protected one.
int RollBack(const ControlClient& client, DecisionOptions options, bool is_confirmed);

/// Removes the approved states and the replaced copies of a path that the policy no longer names.
/// Needs no agent.
int ForgetPath(const std::string& path);

/// The newest approved state of each path that the policy names. Prints which others there are and
/// which ones are not there.
ApprovedStates::Choice ProtectedStates(const ApprovedStates& states);

/// What `paths` name, or for none all that the policy names; false, printed, when one of them names
/// nothing, or not all can be used.
bool SelectParts(const ApprovedStates& states, const std::vector<std::string>& paths,
                 std::vector<ApprovedPart>& parts);

/// Prints each as a line to standard error.
void PrintProblems(const std::vector<std::string>& problems);

}  // namespace Ctl
