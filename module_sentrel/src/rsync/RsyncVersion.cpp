#include "rsync/RsyncVersion.h"

#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/log/Log.h>

#include <array>
#include <charconv>

#include "base/ModuleLogger.h"
#include "rsync/RsyncEnvironment.h"
#include "status/SentrelStatus.h"

namespace Engine {

namespace {

constexpr int kAskTimeoutMs = 5000;
constexpr std::size_t kMaxAnswer = 4096;
constexpr std::array<int, 3> kFirstSafeVersion = {3, 5, 0};

std::array<int, 3> Numbers(const std::string& version) {
    std::array<int, 3> numbers{};
    const char* at = version.data();
    const char* const end = at + version.size();
    for (int& number : numbers) {
        const auto [next, error] = std::from_chars(at, end, number);
        if (error != std::errc() || next == end || *next != '.') break;
        at = next + 1;
    }
    return numbers;
}

}  // namespace

std::string RsyncVersionFromText(const std::string& text) {
    static const std::string kMark = "rsync  version ";
    const std::size_t mark = text.find(kMark);
    if (mark == std::string::npos) return "";
    std::size_t begin = mark + kMark.size();
    if (begin < text.size() && text[begin] == 'v') ++begin;
    return text.substr(begin, text.find_first_of(" \t\r\n", begin) - begin);
}

bool FollowsPlantedLinks(const std::string& version) {
    return Numbers(version) < kFirstSafeVersion;
}

void NoteRsyncVersion(const std::string& path, bool installed_anew) {
    SentrelStatus& status = SentrelStatus::Instance();
    if (installed_anew) status.ForgetRsync();
    if (status.IsRsyncKnown()) return;
    SDK::ExecuteCmdUtils::SetProgramEnvironment(path, {});  // a new file is asked without additions
    std::string output;
    int exit_code = 0;
    const int result = SDK::ExecuteCmdUtils::ExecuteCmd(path, {"--version"}, kAskTimeoutMs,
                                                        exit_code, output, kMaxAnswer);
    if (result == SDK::ExecuteCmdUtils::kInterrupted) return;  // the next call asks again
    const std::string version = RsyncVersionFromText(output);
    std::string reason;
    if (version.empty()) {
        reason = "bin/rsync does not tell its version";
    } else if (FollowsPlantedLinks(version)) {
        reason = "rsync " + version + " is older than 3.5.0: follows planted links as root";
    }
    status.SetRsync(version, reason);
    if (!reason.empty()) SDK_LOG(ModuleLogger(), PRIO_WARNING, "rsync degraded: %s.", reason);
    SetUpRsync(path, output);
}

}  // namespace Engine
