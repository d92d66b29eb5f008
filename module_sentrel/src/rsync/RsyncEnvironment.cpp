// Decides what bin/rsync gets beside the environment of all commands, and tells the command runner.
// It must not reach any command but rsync. The library's own source says what the library does,
// conf/home/.popt what the options are for. Stateless.
#include "rsync/RsyncEnvironment.h"

#include <framework/ConfigManager.h>
#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <unistd.h>

#include "base/ModuleLogger.h"

namespace Engine {

namespace {

using SDK::ExecuteCmdUtils;

constexpr const char* kSwitch = "rsync_preload";
constexpr const char* kFormerSwitch = "rsync_nap";  ///< in the configurations of version 0.1
constexpr int kAskTimeoutMs = 5000;
constexpr std::size_t kMaxAnswer = 4096;

bool IsSwitchedOff() {
    const Json::Value section = Framework::ConfigManager::GetInstance().Section("sentrel");
    const Json::Value value = section.get(kSwitch, section[kFormerSwitch]);
    if (!value.isNull() && !value.isBool()) {
        SDK_LOG(ModuleLogger(), PRIO_WARNING,
                "conf/agent.json: /sentrel/%s: must be true or false; true is used.",
                std::string(kSwitch));
    }
    return value.isBool() && !value.asBool();
}

/// What keeps the library from being loaded; empty when nothing does.
std::string Obstacle(const std::string& library) {
    if (::access(library.c_str(), R_OK) != 0) return library + " cannot be read";
    // The loader takes these for the end of the name.
    if (library.find_first_of(" :") != std::string::npos) return "a blank or colon in " + library;
    return "";
}

/// The loader complains in the program's output; a program that cannot bear the library says less.
bool AnswersTheSame(const std::string& path, const std::string& version_text) {
    std::string output;
    int exit_code = 0;
    return ExecuteCmdUtils::ExecuteCmd(path, {"--version"}, kAskTimeoutMs, exit_code, output,
                                       kMaxAnswer) == 0 &&
           exit_code == 0 && output == version_text;
}

struct Home {
    const char* name;  ///< below conf/home; empty: the usual one
    bool names_checksums;
    bool keeps_acls;
};

std::string HomePath(const Home& home) {
    return SDK::PathUtils::GetInstallationPath() + "conf/home/" + home.name;
}

bool CanKeepAcls(const std::string& version_text) {
    const std::size_t at = version_text.find("ACLs");
    return at != std::string::npos && (at < 3 || version_text.compare(at - 3, 3, "no ") != 0);
}

/// The home with the most option aliases that fit that rsync.
Home HomeFor(const std::string& version_text) {
    const bool has_checksums =
        HasChecksum(version_text, "xxh128") && HasChecksum(version_text, "sha1");
    for (const Home& home :
         {Home{"sha1-acls", true, true}, {"acls", false, true}, {"sha1", true, false}}) {
        if ((home.names_checksums && !has_checksums) ||
            (home.keeps_acls && !CanKeepAcls(version_text))) {
            continue;
        }
        const std::string aliases = HomePath(home) + "/.popt";
        if (::access(aliases.c_str(), R_OK) == 0) return home;
    }
    return {"", false, false};
}

std::vector<std::string> VariablesOf(const Home& home) {
    if (*home.name == '\0') return {};
    return {"HOME=" + HomePath(home)};
}

}  // namespace

bool HasChecksum(const std::string& version_text, const std::string& name) {
    static const std::string kMark = "Checksum list:\n";
    const std::size_t mark = version_text.find(kMark);
    if (mark == std::string::npos) return false;
    const std::size_t begin = mark + kMark.size();
    const std::string line = version_text.substr(begin, version_text.find('\n', begin) - begin);
    return (line + " ").find(" " + name + " ") != std::string::npos;
}

bool KeepsAcls(const std::string& version_text) {
    return HomeFor(version_text).keeps_acls;
}

std::string SetUpRsync(const std::string& path, const std::string& version_text) {
    const std::vector<std::string> home = VariablesOf(HomeFor(version_text));
    ExecuteCmdUtils::SetProgramEnvironment(path, home);
    if (IsSwitchedOff()) return "switched off in conf/agent.json";
    const std::string library = SDK::PathUtils::GetInstallationPath() + "lib/librsync_preload.so";
    std::string obstacle = Obstacle(library);
    if (obstacle.empty()) {
        std::vector<std::string> with_preload = home;
        with_preload.push_back("LD_PRELOAD=" + library);
        ExecuteCmdUtils::SetProgramEnvironment(path, with_preload);
        if (!AnswersTheSame(path, version_text))
            obstacle = library + " cannot be loaded into rsync";
    }
    if (obstacle.empty()) return "";
    ExecuteCmdUtils::SetProgramEnvironment(path, home);
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "rsync works, but ends slowly: %s.", obstacle);
    return obstacle;
}

}  // namespace Engine
