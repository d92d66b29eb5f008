// Measures how fast the file-notify module handles events of known files. One writer appends to
// some thousand files in turn: first while the module handles the events, then before it does.
// Prints one line of medians, or one JSON object with --json.
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <thread>

#include "OwnCore.h"

namespace bench {

namespace {

namespace fs = std::filesystem;

/// Appends one byte at a time to the files in turn. Run writes `count` times and returns the events
/// per second.
class Writer {
  public:
    Writer(const std::string& root, int files) {
        for (int i = 0; i < files; ++i) {
            const std::string dir = root + "/dir" + std::to_string(i % 20);
            fs::create_directories(dir);
            const std::string path = dir + "/page-" + std::to_string(i) + ".html";
            files_.emplace_back(
                ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        }
    }

    double Run(int count) const {
        const auto start = Clock::now();
        for (int i = 0; i < count; ++i) {
            const auto& file = files_[static_cast<std::size_t>(i) % files_.size()];
            if (::write(file.Get(), "x", 1) != 1) return 0;
        }
        return count * 1000.0 / MillisecondsSince(start);
    }

  private:
    std::vector<SDK::FileDescriptor> files_;
};

struct Rates {
    double written = 0;  ///< events per second while the module handles them
    double drained = 0;  ///< events per second of a backlog
    std::uint64_t overflows = 0;
};

Rates Measure(const std::string& root, int files, int events) {
    const Writer writer(root, files);
    OwnCore own(root);
    own.WalkUntilReady();
    Rates rates;
    std::atomic<bool> stop{false};
    std::thread reading([&] {
        while (!stop) own.Step();
        while (own.Step()) {
        }
    });
    rates.written = writer.Run(events);
    stop = true;
    reading.join();
    stop = false;
    std::thread filling([&] {
        while (!stop) own.Core().ReadEvents();
        own.Core().ReadEvents();
    });
    writer.Run(events);
    stop = true;
    filling.join();
    const auto before = own.Received();
    const auto start = Clock::now();
    while (own.Step()) {
    }
    rates.drained = static_cast<double>(own.Received() - before) * 1000 / MillisecondsSince(start);
    rates.overflows = own.Overflows();
    return rates;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    CLI::App app("Rate at which events are taken in");
    int files = 2000;
    int events = 598000;
    int rounds = 5;
    bool json = false;
    app.add_option("--files", files)->check(CLI::Range(1, 100000));
    app.add_option("--events", events)->check(CLI::Range(1, 100000000));
    app.add_option("--rounds", rounds)->check(CLI::Range(1, 1000));
    app.add_flag("--json", json);
    CLI11_PARSE(app, argc, argv);
    const bench::TempTree tree;
    std::vector<double> written;
    std::vector<double> drained;
    unsigned long long overflows = 0;
    for (int round = 0; round < rounds; ++round) {
        const bench::Rates rates = bench::Measure(tree.Path(), files, events);
        written.push_back(rates.written);
        drained.push_back(rates.drained);
        overflows += rates.overflows;
    }
    std::printf(
        json ? "{\"events\":%d,\"written_per_s\":%.0f,\"drained_per_s\":%.0f,\"overflows\":%llu}\n"
             : "%d events: the writer made %.0f a second while they were read; a backlog was "
               "drained at %.0f a second; %llu overflows\n",
        events, bench::Median(written), bench::Median(drained), overflows);
    return 0;
}
