// Measures how long keeping the content of changed files takes. Prints one line of medians, or one
// JSON object with --json.
#include <evidence/EvidenceStore.h>
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double MicrosecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Different files of that size, open as the agent holds them and removed as it does: a file system
/// may be slow to make files after many were removed.
class Objects {
  public:
    Objects(const std::string& directory, int count, std::size_t bytes) {
        for (int i = 0; i < count; ++i) {
            const std::string path = directory + "/" + std::to_string(i);
            std::string content = std::to_string(i) + " ";
            content.resize(std::max(bytes, content.size()), 'x');
            const SDK::FileDescriptor file(
                ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
            if (::write(file.Get(), content.data(), content.size()) < 0) std::perror("write");
            held_.emplace_back(::open(path.c_str(), O_PATH | O_CLOEXEC));
            ::unlink(path.c_str());
        }
    }
    const std::vector<SDK::FileDescriptor>& Held() const { return held_; }

  private:
    std::vector<SDK::FileDescriptor> held_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Time of keeping one changed file as evidence");
    std::string work;
    int files = 800;
    int rounds = 10;
    std::size_t bytes = 4096;
    bool json = false;
    app.add_option("--work", work, "an empty directory on the file system to measure")->required();
    app.add_option("--files", files, "of one round")->check(CLI::Range(1, 900));
    app.add_option("--rounds", rounds)->check(CLI::Range(1, 1000));
    app.add_option("--bytes", bytes);
    app.add_flag("--json", json);
    CLI11_PARSE(app, argc, argv);
    Evidence::EvidenceStore store(work + "/evidence");
    std::vector<double> each;
    std::vector<double> rate;
    for (int round = 0; round < rounds; ++round) {
        // Other contents in each round.
        const Objects objects(work, files, bytes + static_cast<std::size_t>(round));
        const auto begun = Clock::now();
        for (const SDK::FileDescriptor& object : objects.Held()) {
            const auto start = Clock::now();
            if (!store.Keep(object.Get(), "/srv/site/pages/section/page.html", 1 << 20)) return 1;
            each.push_back(MicrosecondsSince(start));
        }
        if (!store.Write()) return 1;
        rate.push_back(MicrosecondsSince(begun) / files);
    }
    std::printf(json ? "{\"keep_us\":%.1f,\"with_writing_us\":%.1f}\n"
                     : "a file: %.1f us until its id is known, %.1f us with all writing\n",
                Median(each), Median(rate));
    return 0;
}
