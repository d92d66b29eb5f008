#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace test {

/// A set of network, process and mount namespaces that looks like a machine of its own. Its
/// processes can write only below the temporary directory. Its first process ends with this object
/// or with the test; the kernel then ends all others and removes the network. Needs root. The
/// caller must reap the processes of Fork before the destructor runs.
class Host {
  public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    bool IsUp() const { return init_ > 0; }
    /// errno of the set-up step that failed.
    int Error() const { return error_; }

    /// fork(2) with the child in this host.
    pid_t Fork() const;

    /// Runs a shell script in the host and returns its exit code. Errors go to the test's stderr.
    int Run(const std::string& script) const;

    /// Runs the script on the real machine with only the network of the host.
    int RunInNetwork(const std::string& script) const;

    /// The path outside the host of the host's `path`.
    std::string PathFromOutside(const std::string& path) const;

    pid_t Init() const { return init_; }

  private:
    TempDir scratch_;
    pid_t init_ = -1;
    int error_ = 0;
};

/// Two hosts with one network link between them.
class TwoHosts {
  public:
    static constexpr char kServerAddress[] = "10.77.0.1";
    static constexpr char kClientAddress[] = "10.77.0.2";

    TwoHosts();

    /// True, with the reason, when the kernel permits no namespaces.
    bool AreNotAllowed(std::string& reason) const;
    /// Both hosts exist and are linked.
    bool AreUp() const { return connected_; }

    /// Sets the server's end of the link up or down.
    bool SetLinkUp(bool up) const;

    Host server;
    Host client;

  private:
    bool connected_ = false;
};

}  // namespace test
