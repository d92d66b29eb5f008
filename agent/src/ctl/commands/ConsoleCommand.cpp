#include "ctl/commands/ConsoleCommand.h"

#include <console/ConsoleServer.h>
#include <pthread.h>

#include <csignal>
#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/console/HostBackend.h"

namespace Ctl {

namespace {

constexpr std::chrono::minutes kTokenLife{10};

}  // namespace

int ServeConsole(const ControlClient& client, unsigned short port) {
    const Answer status = client.Get("/v1/status");
    if (status.kind != Answer::Kind::kAnswered || status.status != 200) return PrintFailure(status);
    // Before the server's threads are started, which inherit the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Console::OneTimeToken access({"root", Console::Role::kAdmin}, kTokenLife);
    HostBackend backend(client);
    Console::ConsoleServer::Options options;
    options.port = port;
    Console::ConsoleServer server(options, access, backend);
    std::string error;
    if (!server.Start(error)) {
        std::cerr << error << std::endl;
        return kExitFailed;
    }
    std::cout << server.Url() << "/#token=" << access.Token() << std::endl;
    std::cerr << "Open this address in a browser on this host within 10 minutes; it is good once. "
                 "From elsewhere, forward the port first (ssh -L). Ctrl-C ends the console."
              << std::endl;
    int signal = 0;
    ::sigwait(&signals, &signal);
    server.Stop();
    return kExitOk;
}

}  // namespace Ctl
