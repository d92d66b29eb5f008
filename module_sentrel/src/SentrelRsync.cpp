// Builds and runs the rsync commands. It must not decide what is copied when (the tasks do). Each
// command has a line, which is given and logged, and the words that are meant by it. Only the words
// are run, and no shell: on the line file names stand as they are, so a name could add words to it,
// or commands. Keeps no state but each thread's last error.
#define SDK_LOG_FILE "SentrelUtils.cpp"

#include <SentrelUtils.h>
#include <framework/ConfigManager.h>
#include <sdk/CommandIdleLimit.h>
#include <sdk/CommandLine.h>
#include <sdk/ExecuteCmdUtils.h>
#include <sdk/Log.h>
#include <sdk/PathUtils.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Engine {

namespace {

constexpr std::size_t kMaxOutput = 4096;

std::string& ThreadError() {
    thread_local std::string text;
    return text;
}

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

/// One rsync command: its line, the words that are meant, and those of them that are paths.
struct Command {
    std::string line;
    std::vector<std::string> words;
    std::vector<std::string> paths;

    /// Appends a word that stands on the line as it is, behind `before`.
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

using RunningCopy = SentrelUtils::RunningCopy;
enum class Way { kLineOnly, kLineOrWords };

/// A relative path would be an option, a place on another host or one below our own directory.
std::string WhyRefused(const Command& command, Way way) {
    for (const std::string& path : command.paths) {
        if (path.empty() || path.front() != '/') return "\"" + path + "\" is no absolute path";
    }
    if (way == Way::kLineOrWords || SDK::SplitPlainCommand(command.line) == command.words) {
        return "";
    }
    return "the command line does not carry each path as one word";
}

RunningCopy Launch(const Command& command, Way way) {
    RunningCopy copy{command.line, WhyRefused(command, way), nullptr};
    if (copy.refusal.empty()) {
        copy.rsync =
            std::make_unique<SDK::RunningCommand>(command.words, SDK::RunningCommand::kNoLimit);
    }
    return copy;
}

Command LocalCommand(const std::list<std::string>& ignored_postfix,
                     const std::list<std::string>& ignored_subdir) {
    Command command;
    command.AddPath("", SDK::PathUtils::GetInstallationPath() + "bin/rsync");
    command.line += " -az -H -X --links --delete-excluded --temp-dir=/tmp ";
    command.words.insert(command.words.end(),
                         {"-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"});
    for (const std::string& postfix : ignored_postfix) command.AddExclusion("*" + postfix);
    for (const std::string& subdir : ignored_subdir) command.AddExclusion(subdir);
    return command;
}

/// Adds source and destination of a restore; false when there is no backup copy.
bool AddRestore(const std::string& src, const std::string& dst, Command& command) {
    std::string target = src;
    const std::string backup = dst + target;
    struct stat info {};
    if (::lstat(backup.c_str(), &info) != 0) {
        const int error = errno;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "file:%s  info:%d", backup, error);
        ThreadError() = "no backup copy " + backup + ": " + std::strerror(error);
        return false;
    }
    if (S_ISDIR(info.st_mode) && (target.empty() || target.back() != '/')) target += '/';
    command.AddPath("", dst + target);
    command.AddPath(" ", target);
    command.line += " ";
    return true;
}

std::unique_ptr<RunningCopy> LaunchRestore(const std::string& src, const std::string& dst,
                                           const std::list<std::string>& ignored_postfix,
                                           const std::list<std::string>& ignored_subdir, Way way) {
    Command command = LocalCommand(ignored_postfix, ignored_subdir);
    if (!AddRestore(src, dst, command)) return nullptr;
    return std::make_unique<RunningCopy>(Launch(command, way));
}

std::unique_ptr<RunningCopy> LaunchBackup(const std::string& src, const std::string& dst,
                                          const std::list<std::string>& ignored_postfix,
                                          const std::list<std::string>& ignored_subdir) {
    Command command = LocalCommand(ignored_postfix, ignored_subdir);
    command.Add(" ", "-R");
    command.AddPath(" ", src);
    command.AddPath(" ", dst);
    command.line += " ";
    return std::make_unique<RunningCopy>(Launch(command, Way::kLineOrWords));
}

}  // namespace

bool SentrelUtils::DoRsyncLocal(const std::string& src, const std::string& dst,
                                const std::list<std::string>& ignored_postfix,
                                const std::list<std::string>& ignored_subdir, rsync_mode mode) {
    return FinishLocal(mode == RSYNC_BACKUP
                           ? LaunchBackup(src, dst, ignored_postfix, ignored_subdir)
                           : BeginRestoreWithoutLine(src, dst, ignored_postfix, ignored_subdir));
}

std::unique_ptr<RunningCopy> SentrelUtils::BeginRestore(
    const std::string& src, const std::string& dst, const std::list<std::string>& ignored_postfix,
    const std::list<std::string>& ignored_subdir) {
    return LaunchRestore(src, dst, ignored_postfix, ignored_subdir, Way::kLineOnly);
}

std::unique_ptr<RunningCopy> SentrelUtils::BeginRestoreWithoutLine(
    const std::string& src, const std::string& dst, const std::list<std::string>& ignored_postfix,
    const std::list<std::string>& ignored_subdir) {
    return LaunchRestore(src, dst, ignored_postfix, ignored_subdir, Way::kLineOrWords);
}

bool SentrelUtils::FinishLocal(const std::unique_ptr<RunningCopy>& copy) {
    // A pipe in a file's place would hold it for ever, and rsync's own time limit ends only what
    // waits for the other end.
    const SDK::CommandIdleLimit limit(copy_idle_period);
    return copy != nullptr && FinishCopy(*copy);
}

bool SentrelUtils::DoRsyncRemote(const std::string& src, [[maybe_unused]] rsync_mode mode) {
    const std::string install = SDK::PathUtils::GetInstallationPath();
    Command command;
    command.AddPath("", install + "bin/rsync");
    command.line += " -az -H -X -R --links --delete-excluded";
    command.words.insert(command.words.end(),
                         {"-az", "-H", "-X", "-R", "--links", "--delete-excluded"});
    command.Add(" ", "--password-file=" + install + "conf/rsync_client.secrets");
    if (backup_port != 0) {
        command.Add(" ", "--port");
        command.Add(" ", std::to_string(backup_port));
    }
    command.AddPath(" ", src);
    const std::string agent_id = Framework::ConfigManager::GetInstance().GetAgentId();
    if (agent_id.empty()) {
        SDK_LOG(GetLogger(), PRIO_DEBUG, "agentid pok.");
        ThreadError() = "the agent has no id";
        return false;
    }
    command.Add(" ", "morvane_agent@" + backup_addr + "::morvane_agent/" + agent_id);
    command.line += " ";
    return FinishCopy(Launch(command, Way::kLineOrWords));
}

bool SentrelUtils::FinishCopy(const RunningCopy& copy) {
    std::string output = copy.refusal;
    int exit_code = -1;
    int result = SDK::ExecuteCmdUtils::kStartFailed;
    if (copy.rsync != nullptr) {
        const int ended = copy.rsync->Wait(exit_code, output, kMaxOutput);
        result = ended == 0 ? exit_code : ended;
    }
    const std::string& command = copy.command;
    if (result != 0 || output.find("error") != std::string::npos) {
        SDK_LOG(GetLogger(), PRIO_DEBUG, "Exec cmd [%s] failed, infor:%s.", command, output);
        ThreadError() = DescribeFailure(result, output);
        if (result == SDK::ExecuteCmdUtils::kTimedOut) {
            SDK_LOG(GetLogger(), PRIO_WARNING, "%s: %s", ThreadError(), command);
        }
        return false;
    }
    SDK_LOG(GetLogger(), PRIO_DEBUG, "Exec cmd [%s] sucess.", command);
    ThreadError().clear();
    return true;
}

std::string SentrelUtils::LastCopyError() const {
    return ThreadError();
}

}  // namespace Engine
