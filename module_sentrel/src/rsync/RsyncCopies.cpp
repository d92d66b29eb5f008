// Builds and runs the rsync commands. It must not decide what is copied when (the tasks do). Each
// command has a line, which is logged, and the words that the line means. Only the words are run,
// without a shell: on the line file names stand unquoted, so a name could add words or commands.
// Stateless; any thread.
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include "rsync/RsyncCopies.h"

#include <framework/ConfigManager.h>
#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/commands/RunningCommand.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/time/CommandLimit.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/ModuleLogger.h"
#include "base/RsyncPaths.h"

namespace Engine {

namespace {

constexpr std::size_t kMaxOutput = 4096;

std::string FirstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::string DescribeFailure(int result, const std::string& output) {
    switch (result) {
        case SDK::ExecuteCmdUtils::kInterrupted:
            return "rsync was interrupted";
        case SDK::ExecuteCmdUtils::kStartFailed:
            return "rsync was not started: " + FirstLine(output);
        case SDK::ExecuteCmdUtils::kKilledBySignal:
            return "rsync was killed";
        case SDK::ExecuteCmdUtils::kTimedOut:
            return "rsync was held up and has been ended";
        default:
            break;
    }
    return "rsync ended with " + std::to_string(result) + ": " + FirstLine(output);
}

/// One rsync command: its line, the words that it means, and those of them that are paths.
struct Command {
    std::string line;
    std::vector<std::string> words;
    std::vector<std::string> paths;

    /// Appends a word, on the line behind `before`.
    void Add(const std::string& before, const std::string& word) {
        line += before + word;
        words.push_back(word);
    }
    void AddPath(const std::string& before, const std::string& path) {
        Add(before, path);
        paths.push_back(path);
    }
    void AddExclusion(const std::string& pattern) {
        line += " --exclude \"" + pattern + "\" ";
        words.insert(words.end(), {"--exclude", pattern});
    }
};

/// rsync takes a relative path for an option, a place on another host or one below our own working
/// directory.
std::string WhyRefused(const Command& command) {
    for (const std::string& path : command.paths) {
        if (path.empty() || path.front() != '/') return "\"" + path + "\" is no absolute path";
    }
    return "";
}

Command LocalCommand(const std::list<std::string>& ignored_postfix,
                     const std::list<std::string>& ignored_subdir) {
    Command command;
    command.AddPath("", RsyncPaths::Program(SDK::PathUtils::GetInstallationPath()));
    command.line += " -az -H -X --links --delete-excluded --temp-dir=/tmp ";
    command.words.insert(command.words.end(),
                         {"-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"});
    for (const std::string& postfix : ignored_postfix) command.AddExclusion("*" + postfix);
    for (const std::string& subdir : ignored_subdir) command.AddExclusion(subdir);
    return command;
}

/// Adds source and destination of a restore. Returns why there is no backup copy; empty when there
/// is one.
std::string AddRestore(const std::string& src, const std::string& dst, Command& command) {
    std::string target = src;
    const std::string backup = dst + target;
    struct stat info {};
    if (::lstat(backup.c_str(), &info) != 0) {
        const int error = errno;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "file:%s  info:%d", backup, error);
        return "no backup copy " + backup + ": " + std::strerror(error);
    }
    if (S_ISDIR(info.st_mode)) target = SDK::PathUtils::WithTrailingSlash(std::move(target));
    command.AddPath("", dst + target);
    command.AddPath(" ", target);
    command.line += " ";
    return "";
}

/// Runs the command to its end and judges what it printed.
CopyResult Run(const Command& command) {
    std::string output = WhyRefused(command);
    int result = SDK::ExecuteCmdUtils::kStartFailed;
    if (output.empty()) {
        SDK::RunningCommand rsync(command.words, SDK::RunningCommand::kNoLimit);
        int exit_code = -1;
        const int ended = rsync.Wait(exit_code, output, kMaxOutput);
        result = ended == 0 ? exit_code : ended;
    }
    if (result == 0 && output.find("error") == std::string::npos) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Exec cmd [%s] sucess.", command.line);
        return {true};
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Exec cmd [%s] failed, infor:%s.", command.line, output);
    const std::string error = DescribeFailure(result, output);
    if (result == SDK::ExecuteCmdUtils::kTimedOut) {
        SDK_LOG(ModuleLogger(), PRIO_WARNING, "%s: %s", error, command.line);
    }
    return {false, error};
}

}  // namespace

CopyResult RsyncCopies::CopyLocally(const std::string& src, const std::string& dst,
                                    const std::list<std::string>& ignored_postfix,
                                    const std::list<std::string>& ignored_subdir, rsync_mode mode,
                                    std::chrono::milliseconds idle_period) {
    Command command = LocalCommand(ignored_postfix, ignored_subdir);
    if (mode == RSYNC_BACKUP) {
        command.Add(" ", "-R");
        command.AddPath(" ", src);
        command.AddPath(" ", dst);
        command.line += " ";
    } else {
        const std::string error = AddRestore(src, dst, command);
        if (!error.empty()) return {false, error};
    }
    // A pipe in a file's place would hold rsync for ever: its own time limit ends only what waits
    // for the other end.
    const SDK::CommandIdleLimit limit(idle_period);
    return Run(command);
}

CopyResult RsyncCopies::Push(const std::string& src, const std::string& address, int port) {
    const std::string install = SDK::PathUtils::GetInstallationPath();
    Command command;
    command.AddPath("", RsyncPaths::Program(install));
    command.line += " -az -H -X -R --links --delete-excluded";
    command.words.insert(command.words.end(),
                         {"-az", "-H", "-X", "-R", "--links", "--delete-excluded"});
    command.Add(" ", "--password-file=" + RsyncPaths::Secrets(install, "client"));
    if (port != 0) {
        command.Add(" ", "--port");
        command.Add(" ", std::to_string(port));
    }
    command.AddPath(" ", src);
    const std::string agent_id = Framework::ConfigManager::GetInstance().GetAgentId();
    if (agent_id.empty()) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "agentid pok.");
        return {false, "the agent has no id"};
    }
    command.Add(" ", "morvane_agent@" + address + "::morvane_agent/" + agent_id);
    command.line += " ";
    return Run(command);
}

}  // namespace Engine
