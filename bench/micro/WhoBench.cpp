// Measures what a writer at full speed loses while the sentry attributes its changes: in a
// directory that nobody watches, and in one that the sentry watches, without and with the rest that
// a storm brings. Also the time of a lookup. Needs root. Prints one line for each measurement.
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "support/WaitFor.h"
#include "who/WhoRoom.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Changes a second, over `time`, of one writer that overwrites 100 files in turn.
double Write(const test::TempDir& folder, std::chrono::milliseconds time) {
    std::vector<SDK::FileDescriptor> files;
    for (int i = 0; i < 100; ++i) {
        const std::string file = folder.Write(std::to_string(i), "page");
        files.emplace_back(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    }
    long changes = 0;
    const Clock::time_point begun = Clock::now();
    while (Clock::now() - begun < time) {
        for (const SDK::FileDescriptor& file : files) {
            if (::pwrite(file.Get(), "x", 1, 0) == 1) ++changes;
        }
    }
    return static_cast<double>(changes) /
           std::chrono::duration<double>(Clock::now() - begun).count();
}

double LookupMs(Sentry::WhoRoom& room, const std::string& path) {
    Json::Value request;
    request["of"][0]["path"] = path;
    const Clock::time_point begun = Clock::now();
    room.Answer("lookup", request);
    return std::chrono::duration<double, std::milli>(Clock::now() - begun).count();
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 5;
    CLI::App app("Measures what attribution costs a writer at full speed");
    app.add_option("--seconds", seconds, "Of each measurement");
    CLI11_PARSE(app, argc, argv);
    const test::TempDir free;
    const test::TempDir watched;
    Sentry::WhoRoom room;
    Json::Value settings(Json::objectValue);
    room.Start(settings, -1, [](const Json::Value&, int) { return true; });
    Json::Value request;
    request["paths"][0]["path"] = watched.Path();
    room.Answer("watch", request);
    const auto directories = [&] { return room.Status()["directories"].asInt(); };
    if (!test::WaitFor([&] { return directories() == 1; }, std::chrono::seconds(5))) {
        std::fprintf(stderr, "the kernel refuses\n");
        return 1;
    }
    std::printf("not watched             %10.0f changes/s\n",
                Write(free, std::chrono::seconds(seconds)));
    std::printf("watched, first 50 ms    %10.0f changes/s\n",
                Write(watched, std::chrono::milliseconds(50)));
    std::printf("watched, with its rests %10.0f changes/s\n",
                Write(watched, std::chrono::seconds(seconds)));
    std::printf("lookup                  %10.3f ms\n", LookupMs(room, watched.Path("1")));
    return 0;
}
