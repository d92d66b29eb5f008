#include "support/AgentProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sdk/files/FileUtils.h>
#include <sdk/host/SystemUtils.h>
#include <sdk/text/JsonUtils.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/Isolation.h"
#include "support/TwoHosts.h"
#include "support/WaitFor.h"

namespace test {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int kCannotIsolate = 121;
constexpr int kCannotExecute = 122;
constexpr auto kStartDeadline = 20s;
constexpr auto kStopDeadline = 30s;
constexpr char kReadyText[] = "morvane_agent runs";
constexpr char kRsync[] = "/usr/bin/rsync";

/// Links programs and libraries where possible; copies what an agent may write.
void CopyStage(const std::string& to) {
    for (const char* folder : {"bin", "lib", "module"}) {
        fs::create_directories(to + "/" + folder);
        const fs::path from = fs::path(SENTREL_STAGE) / folder;
        if (!fs::exists(from)) continue;
        for (const auto& file : fs::directory_iterator(from)) {
            const fs::path target = fs::path(to) / folder / file.path().filename();
            std::error_code no_link;
            fs::create_hard_link(file.path(), target, no_link);
            if (no_link) fs::copy_file(file.path(), target);
        }
    }
    fs::copy(std::string(SENTREL_STAGE) + "/conf", to + "/conf", fs::copy_options::recursive);
}

bool Redirect(const std::string& file, int flags, int fd) {
    const int opened = ::open(file.c_str(), flags | O_CLOEXEC, 0600);
    return opened >= 0 && ::dup2(opened, fd) == fd;
}

/// The exit code; -1 after a signal. Kills the process after the deadline.
int Reap(pid_t pid, std::chrono::milliseconds deadline) {
    int status = 0;
    if (!WaitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, Scaled(deadline))) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        ADD_FAILURE() << "process " << pid << " did not end in time";
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void SetDistributionsRsync(Json::Value& policy) {
    std::string sha256;
    SDK::FileUtils::GetFileSha256(kRsync, sha256, 1L << 30);
    SetRsync(policy, std::string("file://") + kRsync, sha256);
}

}  // namespace

Json::Value ProtectionPolicy(const std::vector<ProtectedPath>& paths) {
    Json::Value policy;
    policy["enabled"] = true;
    Json::Value& content = policy["content"];
    content["os_type"] = 0;
    content["backup_type"] = 0;
    content["diff_content"] = true;
    content["diff_attr"] = true;
    content["dirlist"] = Json::Value(Json::arrayValue);
    for (const ProtectedPath& path : paths) {
        Json::Value entry;
        entry["enable"] = true;
        entry["auto_restore"] = path.auto_restore;
        entry["filepath"] = path.path;
        entry["backup_path"] = path.backup_path;
        for (const std::string& subdir : path.ignored_subdir)
            entry["ignored_subdir"].append(subdir);
        content["dirlist"].append(entry);
    }
    SetDistributionsRsync(policy);
    return policy;
}

Json::Value BackupServerPolicy(const std::string& address, int port, const std::string& path) {
    Json::Value policy;
    policy["enabled"] = true;
    policy["content"]["backupserver_ip"] = address;
    policy["content"]["backupserver_port"] = port;
    policy["content"]["backupserver_path"] = path;
    SetDistributionsRsync(policy);
    return policy;
}

void SetRsync(Json::Value& policy, const std::string& url, const std::string& sha256) {
    const std::string prefix = "rsync_" + SDK::SystemUtils::GetInstance()->GetOsArch();
    const bool own_family = SDK::SystemUtils::GetInstance()->GetOsName() <= 1;
    policy["content"][prefix + (own_family ? "_tx_url" : "_url")] = url;
    policy["content"][prefix + (own_family ? "_tx_hash" : "_hash")] = sha256;
}

AgentProcess::AgentProcess() {
    const char* const confinement = std::getenv("SENTREL_AGENT_THROUGH");
    std::istringstream words(confinement == nullptr ? "" : confinement);
    for (std::string word; words >> word;) wrapper_.push_back(word);
    CopyStage(installation_.Path());
    scratch_.Write("stand_in", "");
    scratch_.Write("queue_limit", "16384\n");
}

AgentProcess::~AgentProcess() {
    Kill();
}

pid_t AgentProcess::Spawn(const std::string& program, const std::vector<std::string>& arguments,
                          const std::string& input, bool isolate, const std::string& output) const {
    const std::string in = scratch_.Write(output + ".in", input);
    const std::string out = scratch_.Path(output + ".out");
    const std::string err = scratch_.Path(output + ".err");
    const std::string stand_in = scratch_.Path("stand_in");
    const std::string queue_limit = scratch_.Path("queue_limit");
    const std::string temporary = fs::temp_directory_path().string();
    std::vector<std::string> words = isolate ? wrapper_ : std::vector<std::string>();
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const bool in_host = isolate && host_ != nullptr;
    const pid_t child = in_host ? host_->Fork() : ::fork();
    if (child != 0) return child;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!Redirect(in, O_RDONLY, STDIN_FILENO) ||
        !Redirect(out, O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO) ||
        !Redirect(err, O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO) ||
        (isolate && !in_host &&
         !(UnshareMounts() &&
           IsolateFiles(stand_in.c_str(), queue_limit.c_str(), temporary.c_str())))) {
        ::_exit(kCannotIsolate);
    }
    ::execv(argv[0], argv.data());
    ::_exit(kCannotExecute);
}

CommandResult AgentProcess::RunToEnd(const std::string& program,
                                     const std::vector<std::string>& arguments,
                                     const std::string& input, bool isolate,
                                     std::chrono::milliseconds deadline) const {
    const std::string name = "run" + std::to_string(runs_++);
    CommandResult result;
    result.exit_code = Reap(Spawn(program, arguments, input, isolate, name), deadline);
    result.out = TempDir::Read(scratch_.Path(name + ".out"));
    result.err = TempDir::Read(scratch_.Path(name + ".err"));
    return result;
}

bool AgentProcess::Start() {
    const std::string name = "agent" + std::to_string(runs_++);
    pid_ = Spawn(Path("bin/morvane_agent"), {}, "", true, name);
    const auto output = [&] { return TempDir::Read(scratch_.Path(name + ".out")); };
    const bool has_answered =
        WaitFor([&] { return output().find(kReadyText) != std::string::npos || !IsRunning(); },
                Scaled(kStartDeadline));
    if (has_answered && IsRunning()) return true;
    ADD_FAILURE() << "the agent did not start: " << output()
                  << TempDir::Read(scratch_.Path(name + ".err"));
    Kill();
    return false;
}

int AgentProcess::Stop() {
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    const int exit_code = Reap(pid_, kStopDeadline);
    pid_ = -1;
    if (exit_code != 0) {
        ADD_FAILURE() << "exit code " << exit_code << ": "
                      << TempDir::Read(scratch_.Path("agent" + std::to_string(runs_ - 1) + ".err"));
    }
    return exit_code;
}

void AgentProcess::Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool AgentProcess::IsRunning() {
    if (pid_ <= 0) return false;
    if (::waitpid(pid_, nullptr, WNOHANG) == 0) return true;
    pid_ = -1;
    return false;
}

void AgentProcess::Signal(int number) const {
    ::kill(pid_, number);
}

CommandResult AgentProcess::RunAgent(const std::vector<std::string>& arguments) const {
    return RunToEnd(Path("bin/morvane_agent"), arguments, "", true, kStartDeadline);
}

CommandResult AgentProcess::Ctl(const std::vector<std::string>& arguments, const std::string& input,
                                std::chrono::milliseconds deadline) const {
    return RunToEnd(Path("bin/morvanectl"), arguments, input, false, deadline);
}

int AgentProcess::Apply(const Json::Value& policy, const std::string& feature) const {
    const CommandResult result =
        Ctl({"policy", "apply", feature, "-"}, SDK::JsonUtils::JsonToString(policy));
    if (result.exit_code != 0) std::fputs(result.err.c_str(), stderr);
    return result.exit_code;
}

Json::Value AgentProcess::Status() const {
    const std::vector<Json::Value> lines = JsonLines({"status", "--json"});
    return lines.size() == 1 ? lines.front() : Json::Value();
}

bool AgentProcess::IsProtecting() const {
    const Json::Value status = Status();
    const Json::Value& paths = status["protected_paths"];
    bool ready = !paths.empty() && status["protection"]["on"].asBool() &&
                 !status["backup"]["local_pending"].asBool();
    for (const Json::Value& path : paths) ready = ready && path["state"] == "ready";
    return ready;
}

std::vector<Json::Value> AgentProcess::JsonLines(const std::vector<std::string>& arguments) const {
    std::istringstream out(Ctl(arguments).out);
    std::vector<Json::Value> objects;
    for (std::string line; std::getline(out, line);) {
        Json::Value object;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), object), 0) << line;
        objects.push_back(object);
    }
    return objects;
}

bool AgentProcess::HasAlarm(const std::string& action, const std::string& path) const {
    for (const Json::Value& report : JsonLines({"alarms", "--json", "--limit", "1000"})) {
        const Json::Value& file = report["alarm"]["file_info"][0];
        if (file["action"] == action && file["file_path"] == path) return true;
    }
    return false;
}

}  // namespace test
