// Starts rsync. Must not check the tree: the rows do.
#include "products/BareRsync.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace Bench {
namespace {

constexpr std::size_t kForkerBytes = 200 << 20;
constexpr int kForkerTimeoutMs = 60000;

}  // namespace

bool BareRsync::Start(const Site& site, const ProductSettings& /*settings*/) {
    site_ = site;
    return true;
}

Command BareRsync::Restore(const std::string& path) const {
    Command command;
    command.arguments = RestoreArguments(kRsync);
    command.arguments.push_back(site_.good + "/" + path);
    command.arguments.push_back(site_.live + "/" + path);
    command.environment = PlainEnvironment(machine_);
    return command;
}

std::optional<Clock::time_point> BareRsync::StartRestore(const std::string& path) {
    const Command command = Restore(path);
    began_ = Clock::now();
    main_ = Child::Start(command);
    return began_;
}

void BareRsync::Settle() {
    main_.Wait(std::chrono::minutes(5));
    exit_ms_ = MsSince(began_);
    main_.Stop(milliseconds(0));
}

bool ForkedRsync::Start(const Site& site, const ProductSettings& settings) {
    bare_.Start(site, settings);
    const std::string requests = site.scratch + "/requests";
    const std::string answers = site.scratch + "/answers";
    if (::mkfifo(requests.c_str(), 0600) != 0 || ::mkfifo(answers.c_str(), 0600) != 0) {
        return Fail("no FIFOs");
    }
    // Read-write, so that no open waits for the other side.
    to_parent_ = ::open(requests.c_str(), O_RDWR | O_CLOEXEC);
    from_parent_ = ::open(answers.c_str(), O_RDWR | O_CLOEXEC);
    main_ = Child::Start(
        {{machine_.self, "forker", requests, answers}, PlainEnvironment(machine_), "", "", ""});
    return HasAnswered('r') || Fail("the forking process did not start");
}

std::optional<Clock::time_point> ForkedRsync::StartRestore(const std::string& path) {
    std::string line;
    for (const std::string& argument : bare_.Restore(path).arguments) line += argument + " ";
    line.back() = '\n';
    const auto began = Clock::now();
    if (::write(to_parent_, line.data(), line.size()) < 0) problem_ = "no request";
    return began;
}

void ForkedRsync::Settle() {
    HasAnswered('.');
}

void ForkedRsync::Stop() {
    main_.Stop(milliseconds(0));
    for (int* fd : {&to_parent_, &from_parent_}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

bool ForkedRsync::HasAnswered(char word) {
    pollfd wait{from_parent_, POLLIN, 0};
    char byte = 0;
    return ::poll(&wait, 1, kForkerTimeoutMs) == 1 && ::read(from_parent_, &byte, 1) == 1 &&
           byte == word;
}

int RunForker(const std::string& requests, const std::string& answers) {
    const std::string image(kForkerBytes, 'x');  // written, so that it is resident
    std::ifstream in(requests);
    const int out = ::open(answers.c_str(), O_WRONLY | O_CLOEXEC);
    const auto say = [&](char word) { return ::write(out, &word, 1) == 1; };
    if (!say(image[0] == 'x' ? 'r' : '?')) return 1;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::vector<std::string> arguments;
        for (std::string word; words >> word;) arguments.push_back(word);
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        const pid_t child = ::fork();
        if (child == 0) {
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::waitpid(child, nullptr, 0);
        if (!say('.')) return 1;
    }
    return 0;
}

}  // namespace Bench
