#include "support/Child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TempDir.h"

namespace test {

namespace {

/// Starts the words with standard output and error in these files.
pid_t Spawn(const std::vector<std::string>& words, const std::string& out, const std::string& err) {
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    const int flags = O_CREAT | O_WRONLY | O_APPEND;
    ::dup2(::open(out.c_str(), flags, 0600), STDOUT_FILENO);
    ::dup2(::open(err.c_str(), flags, 0600), STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);  // such as sockets of a library
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

}  // namespace

CommandResult RunWords(const std::vector<std::string>& words) {
    const TempDir dir;
    const pid_t pid = Spawn(words, dir.Path("out"), dir.Path("err"));
    int status = -1;
    ::waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TempDir::Read(dir.Path("out")),
            TempDir::Read(dir.Path("err"))};
}

void Child::Start(const std::vector<std::string>& words, const std::string& output) {
    pid_ = Spawn(words, output, output);
}

int Child::Stop(int signal) {
    if (pid_ <= 0) return -1;
    int status = -1;
    ::kill(pid_, signal);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace test
