#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace test {

/// What looks like a machine of its own to the processes in it: their network, process ids and
/// mounts are its own, and of the real machine's files they can write none but those below the
/// temporary directory. It lives by its first process, which ends with this object or with the
/// test: everything in it, and its network, then goes at once. Takes root. The destructor waits for
/// that end, so the processes that came from Fork must have been reaped before.
class Host {
  public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The host is there.
    bool IsUp() const { return init_ > 0; }
    /// Why it is not: errno of the step that failed.
    int Error() const { return error_; }

    /// fork(2), but the child is a process of this host.
    pid_t Fork() const;

    /// Runs a shell script in the host to its end; the exit code. It says on the test's standard
    /// error what went wrong.
    int Run(const std::string& script) const;

    /// The same, seen from the real machine: only the network is the host's.
    int RunInNetwork(const std::string& script) const;

    /// Where the host's own mounts are seen from outside.
    std::string Seen(const std::string& path) const;

    pid_t Init() const { return init_; }

  private:
    TempDir scratch_;
    pid_t init_ = -1;
    int error_ = 0;
};

/// Two hosts with a cable between them, and nothing else to talk to.
class TwoHosts {
  public:
    static constexpr char kServerAddress[] = "10.77.0.1";
    static constexpr char kClientAddress[] = "10.77.0.2";

    TwoHosts();

    /// Namespaces are not allowed here; `reason` says so in words.
    bool AreNotAllowed(std::string& reason) const;
    /// Both are there and the cable is in.
    bool AreUp() const { return connected_; }

    /// Pulls the cable out at the server's end, or puts it back.
    bool SetCable(bool plugged) const;

    Host server;
    Host client;

  private:
    bool connected_ = false;
};

}  // namespace test
