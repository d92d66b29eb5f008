// Makes rsync's command line for fetching, and judges its end. It must not believe what arrives
// (CopyPlacement checks it) nor change a copy.
#include "ctl/remote/ServerCopies.h"

#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Ctl {

using SDK::PathUtils;

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kSpareBytes = 64 * kMiB;  ///< for blocks that are not full
constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kLeastFile = kMiB;
constexpr std::uint64_t kMemory = 1024 * kMiB;
constexpr std::uint64_t kMemoryOfObject = 1024;
constexpr std::uint64_t kSpareObjects = 64;
// rsync's exit codes of a transfer that came to its end.
constexpr int kSomeMissing = 23;
constexpr int kSomeVanished = 24;

std::string Program() {
    const std::string own = PathUtils::BelowInstallation("bin/rsync");
    return ::access(own.c_str(), X_OK) == 0 ? own : "/usr/bin/rsync";
}

std::string Secrets() {
    return PathUtils::BelowInstallation("conf/rsync_client.secrets");
}

}  // namespace

ServerCopies::ServerCopies(BackupServer server, std::string staging, std::function<bool()> is_over,
                           Progress progress)
    : server_(std::move(server)),
      staging_(std::move(staging)),
      is_over_(std::move(is_over)),
      progress_(std::move(progress)) {}

std::string ServerCopies::PlaceOf(const std::string& path, bool is_link) const {
    return FolderOf(is_link) + "/" + server_.agent_id + path;
}

bool ServerCopies::HasAny() const {
    std::error_code error;
    for (const bool is_link : {false, true}) {
        if (std::filesystem::directory_iterator(FolderOf(is_link), error) !=
            std::filesystem::directory_iterator()) {
            return true;
        }
    }
    return false;
}

std::string ServerCopies::Fetch(const ApprovedPart& part, const std::vector<LostCopy>& lost) {
    const std::string problem = Transfer(Select(part, lost, S_IFREG), false);
    return problem.empty() ? Transfer(Select(part, lost, S_IFLNK), true) : problem;
}

ServerCopies::Wanted ServerCopies::Select(const ApprovedPart& part,
                                          const std::vector<LostCopy>& lost, mode_t type) const {
    const Baseline::Manifest& manifest = *part.generation.manifest;
    const std::string root = server_.agent_id + CopyRoot(manifest.Info());
    Wanted wanted;
    for (const LostCopy& one : lost) {
        const Baseline::ManifestEntry entry = manifest.At(one.entry);
        if (!one.is_content || entry.Type() != type) continue;
        const std::string below(entry.path);
        wanted.names += below.empty() ? root : root + "/" + below;
        wanted.names += '\0';
        wanted.bytes += entry.size + kBlock;
        wanted.largest = std::max(wanted.largest, entry.size);
        // With the directories above, of which the site has no more than the path has slashes.
        wanted.objects +=
            2 + static_cast<std::uint64_t>(std::count(below.begin(), below.end(), '/'));
    }
    if (wanted.objects > 0) {
        wanted.objects += static_cast<std::uint64_t>(std::count(root.begin(), root.end(), '/')) + 1;
    }
    return wanted;
}

std::string ServerCopies::Transfer(const Wanted& wanted, bool is_link) {
    if (wanted.names.empty()) return "";
    const std::string folder = FolderOf(is_link);
    const std::string list = folder + ".list";
    // Another user's process writes there and must not be followed: nothing else is in it.
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 ||
        ::chown(folder.c_str(), Confinement::kUser, Confinement::kUser) != 0 ||
        SDK::FileUtils::WriteFile(list, wanted.names, false) != 0) {
        return "The directory " + folder + " cannot be made: " + std::strerror(errno) + ".";
    }
    ConfinedRun run(
        {folder,
         {list, Secrets()},
         std::max(wanted.largest, kLeastFile),
         kMemory + wanted.objects * kMemoryOfObject},
        {wanted.bytes + wanted.objects * kBlock + kSpareBytes, wanted.objects + kSpareObjects},
        is_over_, progress_);
    const ConfinedRun::End end = run.Run(Words(list, wanted.largest, is_link));
    if (!end.problem.empty()) return end.problem;
    if (end.exit_code == 0 || end.exit_code == kSomeMissing || end.exit_code == kSomeVanished) {
        return "";
    }
    return "rsync ended with " + std::to_string(end.exit_code) + ": " +
           end.output.substr(0, end.output.find('\n')) + ".";
}

/// Owners, modes, times and everything but files (or links) stay away: the manifest has them.
std::vector<std::string> ServerCopies::Words(const std::string& list, std::uint64_t largest,
                                             bool is_link) const {
    std::vector<std::string> words = {Program(), "--files-from=" + list, "--from0",
                                      "--no-implied-dirs", "--chmod=D700,F600", "--whole-file",
                                      // One that is larger would end the whole transfer.
                                      "--max-size=" + std::to_string(largest), "--no-motd",
                                      "--contimeout=30", "--timeout=60",
                                      "--password-file=" + Secrets()};
    if (is_link) words.emplace_back("--links");
    if (server_.port != 0) words.insert(words.end(), {"--port", std::to_string(server_.port)});
    // The names begin at the module: a daemon without chroot does not find those below a directory.
    words.push_back("morvane_agent@" + server_.address + "::morvane_agent/");
    words.push_back(FolderOf(is_link) + "/");
    return words;
}

}  // namespace Ctl
