#pragma once

#include <string>

#include "ctl/client/ControlClient.h"

namespace Ctl {

/// Which reports are read, and how they are shown.
struct ReportQuery {
    std::string kind;     ///< "", "cmd", "data" or "alarm"
    long long since = 0;  ///< seconds back, or seconds since the epoch when that large; 0: unset
    bool has_since = false;
    long long after = -1;  ///< only reports with greater sequence numbers; below 0: unset
    int limit = 0;         ///< 0: the agent's default
    bool json = false;
};

/// The commands of morvanectl. Each prints its result to standard output and errors to standard
/// error, and returns the exit code. `file` is a path, or "-" for standard input.
/// `key`: the file of the private key where it is kept elsewhere; empty: none.
int ApplyPolicy(const ControlClient& client, const std::string& feature, const std::string& file,
                const std::string& key);
int CheckPolicy(const ControlClient& client, const std::string& feature, const std::string& file);
int ShowPolicy(const ControlClient& client, const std::string& feature);
int ListPolicies(const ControlClient& client);
int RunTasklet(const ControlClient& client, const std::string& id);
/// `role` is "server" or "client". The password comes from standard input or the terminal.
int SetSecret(const ControlClient& client, const std::string& role);
int ShowStatus(const ControlClient& client, bool json);
/// What a word in brackets in the status means and what to do, from the page in the installation;
/// for an empty word the list of all. Needs no agent.
int Explain(const std::string& word);
/// Every check of docs/troubleshooting.md, with and without an agent.
int Examine(const ControlClient& client, bool json);
/// The status in the text format of Prometheus.
int ShowMetrics(const ControlClient& client);
int ShowReports(const ControlClient& client, const ReportQuery& query);

/// Runs a tasklet. kExitOk: its result is in `result`; otherwise the error has been printed.
int CallTasklet(const ControlClient& client, const std::string& id, const std::string& request,
                int& result);

/// Prints the warnings or errors of a policy check to standard error, each with its place.
void PrintMessages(const char* title, const Json::Value& messages);

/// The help of "--key".
constexpr char kKeyMeaning[] =
    "The private key that signs approved states, where it is kept elsewhere: a PEM file, as "
    "signing.key was";

/// Hands the agent the private key in the file `key` for the next decision; nothing for "".
/// kExitOk, or the error has been printed.
int LendKey(const ControlClient& client, const std::string& key);

/// Prints why the agent did not answer; returns the exit code.
int PrintFailure(const Answer& answer);

}  // namespace Ctl
