#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "console/Access.h"
#include "console/Backend.h"

namespace Console {

/// Serves the console's pages and hands what they ask for to a Backend. Every answer forbids
/// scripts from elsewhere, frames and caching; every request must name the server's own address
/// and, to change something, come from its own page. Start and Stop on one thread.
class ConsoleServer {
  public:
    struct Options {
        std::string address = "127.0.0.1";
        unsigned short port = 0;  ///< 0: a free one
        /// PEM files of the certificate with its chain and of its key; empty: no TLS.
        std::string certificate = {};
        std::string key = {};
        /// What browsers may call the server besides, such as "fleet.example:8443".
        std::vector<std::string> names = {};
        /// After so long without a request a browser must log in again.
        std::chrono::seconds idle_limit = std::chrono::hours(1);
    };

    /// `access` and `backend` are borrowed and must outlive the server.
    ConsoleServer(Options options, Access& access, Backend& backend);
    ~ConsoleServer();
    ConsoleServer(const ConsoleServer&) = delete;
    ConsoleServer& operator=(const ConsoleServer&) = delete;

    /// False, with a sentence in `error`, when the address cannot be listened at.
    bool Start(std::string& error);

    /// Ends the requests under way.
    void Stop();

    /// "http://127.0.0.1:41234", or https; after Start.
    std::string Url() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Console
