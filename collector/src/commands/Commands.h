#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/CollectorSettings.h"

namespace Collector {

// Exit codes of sentrel_collector.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSilent = 3;      ///< status: a host is silent
constexpr int kExitDegraded = 4;    ///< status: a host is degraded, none is silent
constexpr int kExitNotWorking = 5;  ///< status: the collector does not run or has no broker

/// What the commands below read from the command line.
struct Arguments {
    std::string config = kDefaultConfig;
    std::string database;  ///< empty: as the configuration says
    bool json = false;
    std::string agent_id;
    std::string kind;
    std::int64_t after = 0;
    std::int64_t limit = 100;
    std::string key_file;
    std::string public_file;
    std::string feature;
    std::string file;
    std::int64_t version = 0;
    std::vector<std::string> hosts;
    std::vector<std::string> groups;
    bool all_hosts = false;
    std::string act;
    std::vector<std::string> paths;
    bool all = false;
    std::int64_t generation = 0;
    std::int64_t seconds = 0;
    std::int64_t valid_s = 900;
    int percent = 5;
    std::string id;
    std::string reason;
    std::string signer;
    std::string user;
    std::string password_file;
    std::string role = "viewer";
};

// Each command prints to standard output, its errors to standard error, and returns the exit code.

/// The service.
int Run(const Arguments& arguments);

/// The hosts and how they are.
int ShowStatus(const Arguments& arguments);

/// The fleet in the text format of Prometheus.
int ShowMetrics(const Arguments& arguments);

/// Copies an SQLite database to the new file `arguments.file`.
int BackUp(const Arguments& arguments);

/// One JSON object a line.
int ListReports(const Arguments& arguments);
int ListEvents(const Arguments& arguments);
int ListResults(const Arguments& arguments);
int ListActResults(const Arguments& arguments);
int ListRollouts(const Arguments& arguments);

/// Makes the operator's pair of keys.
int MakeKey(const Arguments& arguments);

/// Prints the signed document of the policy.
int SignPolicy(const Arguments& arguments);

/// Prints an act: signed with a key, else what is to be signed elsewhere.
int MakeAct(const Arguments& arguments);

/// Signs what the console or MakeAct has prepared.
int SignDocument(const Arguments& arguments);

/// Hands a signed policy or act to the service, which publishes it in waves.
int RollOut(const Arguments& arguments);

/// Publishes a signed policy or act to its hosts.
int PublishDocument(const Arguments& arguments);

// Users of the console, of whom --database or the configuration has the records.

/// Adds a user, or gives one another role and password, which is the first line of standard input
/// or typed at the terminal.
int AddUser(const Arguments& arguments);
int ListUsers(const Arguments& arguments);
int RemoveUser(const Arguments& arguments);
/// Gives the user a second factor and prints what the phone needs.
int MakeTotp(const Arguments& arguments);

/// Sends a test through every channel of the section "notify"; kExitFailed when one fails.
int TestNotify(const Arguments& arguments);

/// Says `text` on standard error; kExitFailed.
int Fail(const std::string& text);

}  // namespace Collector
