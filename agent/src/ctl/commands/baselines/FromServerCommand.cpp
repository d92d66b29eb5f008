// Brings lost backup copies back from the backup server. It must not touch the site: the agent
// restores it from the copies.
#include <baseline/BackupMark.h>
#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <system_error>
#include <thread>

#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/baselines/ProgressDisplay.h"
#include "ctl/baselines/Verification.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/Question.h"
#include "ctl/output/Terminal.h"
#include "ctl/remote/CopyPlacement.h"

namespace Ctl {

namespace {

using Baseline::TreeVerifier;

constexpr unsigned int kMostThreads = 4;
constexpr std::size_t kMostListed = 100;
constexpr char kScratch[] = ".morvane-tmp";
constexpr char kPrefix[] = "fetch-";
constexpr mode_t kPrivate = 0700;

/// Set by a signal, which any thread may take.
std::atomic<int> interrupted{0};

/// The second signal ends the program at once.
extern "C" void InterruptFetch(int signal) {
    interrupted = 1;
    std::signal(signal, SIG_DFL);
}

bool IsInterrupted() {
    return interrupted != 0;
}

int Refuse(const std::string& sentence, int code = kExitRejected) {
    std::cerr << Printable(sentence) << std::endl;
    return code;
}

/// A directory for one fetch, which goes with everything in it. One fetch a backup path at a time.
class Staging {
  public:
    explicit Staging(const std::string& backup_path) {
        const std::string scratch = SDK::PathUtils::WithTrailingSlash(backup_path) + kScratch;
        if (SDK::DirUtils::MakeDirs(scratch, kPrivate) != 0) return;
        lock_.Reset(::open(scratch.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!lock_.IsOpen() || ::flock(lock_.Get(), LOCK_EX | LOCK_NB) != 0) return;
        RemoveAbandoned(scratch);
        std::string name = scratch + "/" + kPrefix + "XXXXXX";
        if (::mkdtemp(name.data()) == nullptr || ::mkdir((name + "/made").c_str(), kPrivate) != 0) {
            return;
        }
        path_ = name;
    }
    ~Staging() {
        if (!path_.empty()) SDK::DirUtils::DeleteDir(path_);
    }
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    /// Empty: it could not be made (errno).
    const std::string& Path() const { return path_; }

  private:
    static void RemoveAbandoned(const std::string& scratch) {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(scratch, error)) {
            const std::string name = entry.path().filename();
            if (name.rfind(kPrefix, 0) == 0) SDK::DirUtils::DeleteDir(entry.path());
        }
    }

    SDK::FileDescriptor lock_;
    std::string path_;
};

/// What is lost of one protected path.
struct Lost {
    ApprovedPart part;
    std::vector<LostCopy> copies;
    std::uint64_t bytes = 0;
};

/// False, with sentences printed, when not everything could be compared.
bool FindLost(const std::vector<ApprovedPart>& parts, std::vector<Lost>& lost) {
    DifferenceList found(0);
    Verification verification(
        parts,
        {TreeVerifier::Side::kCopies, true,
         std::clamp(std::thread::hardware_concurrency(), 1U, kMostThreads), IsInterrupted},
        found);
    bool is_complete = false;
    {
        const ProgressDisplay display([&] { return verification.Progress(); });
        is_complete = verification.Run();
    }
    PrintProblems(verification.Problems());
    DifferenceList shown(kMostListed);
    for (const FoundDifference& one : found.Kept()) {
        if (one.difference.kind != Baseline::Difference::Kind::kAdded) shown.Add(one);
    }
    WriteDifferences(std::cout, shown, false);
    for (const ApprovedPart& part : parts) {
        Lost one{part, LostCopiesOf(part, found)};
        for (const LostCopy& copy : one.copies) {
            if (copy.is_content) one.bytes += part.generation.manifest->At(copy.entry).size;
        }
        if (!one.copies.empty()) lost.push_back(std::move(one));
    }
    return is_complete;
}

/// Why nothing can be put among these copies; else empty.
std::string WhyNot(const ApprovedStates& states, const Lost& lost) {
    const Baseline::ManifestInfo& info = lost.part.generation.manifest->Info();
    if (states.Store().IsCopying(info.real_path, info.backup_path)) {
        return "A newer state of " + LiveRoot(info) + " is being copied; wait for its end.";
    }
    const std::string unsafe = SDK::PlaceTrust::WhyReachable(info.backup_path);
    if (!unsafe.empty()) return "The backup path " + info.backup_path + " is not safe: " + unsafe;
    const std::string mark =
        SDK::PathUtils::WithTrailingSlash(info.backup_path) + Baseline::kBackupMark;
    if (!states.Store().IsMarkedBackup(info.real_path, info.backup_path) &&
        ::access(mark.c_str(), F_OK) == 0) {
        return "The backup path " + info.backup_path + " holds the copies of something else.";
    }
    std::error_code error;
    const auto above = std::filesystem::path(info.backup_path).parent_path().parent_path();
    const auto space = std::filesystem::space(std::filesystem::exists(info.backup_path, error)
                                                  ? std::filesystem::path(info.backup_path)
                                                  : above,
                                              error);
    // Each content is there twice for a moment.
    if (!error && space.available < 2 * lost.bytes) {
        return info.backup_path + " has too little space for " +
               FormatBytes(2 * static_cast<double>(lost.bytes)) + ".";
    }
    return "";
}

/// The backup path is what the agent made there; it uses the copies again.
void Mark(const ApprovedStates& states, const Baseline::ManifestInfo& info) {
    if (states.Store().IsMarkedBackup(info.real_path, info.backup_path)) return;
    const std::string mark =
        SDK::PathUtils::WithTrailingSlash(info.backup_path) + Baseline::kBackupMark;
    if (SDK::FileUtils::WriteFile(mark, states.Store().BackupId(info.real_path, info.backup_path),
                                  false) != 0) {
        std::cerr << "The mark " << Printable(mark)
                  << " cannot be written: " << std::strerror(errno) << "." << std::endl;
    }
}

void PrintFaults(const std::vector<CopyPlacement::Fault>& faults) {
    const std::size_t shown = std::min(faults.size(), kMostListed);
    for (std::size_t i = 0; i < shown; ++i) {
        std::cout << "not back  " << Printable(faults[i].path) << "  " << Printable(faults[i].why)
                  << "\n";
    }
    if (faults.size() > shown) std::cout << "and " << faults.size() - shown << " more\n";
}

/// How much has arrived; the display reads it on a thread of its own.
struct Arrived {
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> objects{0};
};

/// A sentence when not all that the server has may have arrived.
std::string FetchShown(ServerCopies& fetched, const Lost& lost, const Arrived& arrived) {
    const ProgressDisplay display([&] {
        return ComparisonProgress{std::min<std::size_t>(arrived.objects, lost.copies.size()),
                                  lost.copies.size(), arrived.bytes};
    });
    return fetched.Fetch(lost.part, lost.copies);
}

/// Why what has arrived must not be put in place; else empty.
std::string WhyNotPlaced(const ApprovedStates& states, const Lost& lost, bool has_any) {
    const Baseline::ManifestInfo& info = lost.part.generation.manifest->Info();
    const std::string nothing = "Nothing was changed among the copies of " + LiveRoot(info);
    if (!has_any || IsInterrupted()) return nothing + ".";
    const unsigned int newest = states.Store().Newest(info.real_path, info.backup_path).number;
    return newest == lost.part.generation.number
               ? ""
               : nothing + ": another state was approved meanwhile.";
}

/// Fetches and places what one path has lost. kExitOk when all is back.
int BringBack(const ApprovedStates& states, const BackupServer& server, const Lost& lost) {
    const Baseline::ManifestInfo& info = lost.part.generation.manifest->Info();
    if (SDK::DirUtils::MakeDirs(info.backup_path, kPrivate) != 0) {
        return Refuse(info.backup_path + " cannot be made: " + std::strerror(errno) + ".",
                      kExitFailed);
    }
    const Staging staging(info.backup_path);
    const auto backup =
        SDK::PathAnchor::Open(SDK::PathUtils::WithoutTrailingSlash(info.backup_path));
    const auto made =
        staging.Path().empty() ? nullptr : SDK::PathAnchor::Open(staging.Path() + "/made");
    if (backup == nullptr || made == nullptr) {
        return Refuse(errno == EWOULDBLOCK ? "Another command fetches copies to there."
                                           : "No directory can be made in " + info.backup_path +
                                                 ": " + std::strerror(errno) + ".",
                      kExitFailed);
    }
    Arrived arrived;
    ServerCopies fetched(server, staging.Path(), IsInterrupted,
                         [&](std::uint64_t bytes, std::uint64_t objects) {
                             arrived.bytes = bytes;
                             arrived.objects = objects;
                         });
    const std::string problem = FetchShown(fetched, lost, arrived);
    if (!problem.empty()) std::cerr << Printable(problem) << std::endl;
    const std::string why = WhyNotPlaced(states, lost, problem.empty() || fetched.HasAny());
    if (!why.empty()) return Refuse(why, kExitFailed);
    CopyPlacement placement(lost.part, *backup, *made, fetched, IsInterrupted);
    const CopyPlacement::Result result = placement.Place(lost.copies);
    if (result.contents > 0 || result.faults.empty()) Mark(states, info);
    PrintFaults(result.faults);
    std::cout << result.placed << " of " << lost.copies.size() << " lost copies of "
              << Printable(LiveRoot(info)) << " are back" << std::endl;
    return result.placed == lost.copies.size() ? kExitOk : kExitFailed;
}

/// kExitOk: go on.
int Ask(const std::vector<Lost>& lost, const BackupServer& server, bool yes) {
    std::uint64_t bytes = 0;
    for (const Lost& one : lost) {
        bytes += one.bytes;
        const Baseline::ManifestInfo& info = one.part.generation.manifest->Info();
        if (::access(CopyRoot(info).c_str(), F_OK) == 0) continue;
        std::cout << "note: " << Printable(info.backup_path)
                  << " has none of the copies. If a file system belongs there, mount it instead.\n";
    }
    std::cout << std::flush;
    if (yes) return kExitOk;
    if (!IsAtTerminal()) {
        return Refuse("Nothing was done: without a terminal, --yes is needed.", kExitUsage);
    }
    if (Confirm("Fetch " + FormatBytes(static_cast<double>(bytes)) + " from " +
                Printable(server.address) + "?")) {
        return kExitOk;
    }
    return Refuse("Nothing was done.", kExitFailed);
}

int FetchAll(const ApprovedStates& states, const BackupServer& server,
             const std::vector<Lost>& lost) {
    for (const Lost& one : lost) {
        const std::string why = WhyNot(states, one);
        if (!why.empty()) return Refuse(why);
    }
    int worst = kExitOk;
    for (const Lost& one : lost) {
        if (!IsInterrupted()) worst = std::max(worst, BringBack(states, server, one));
    }
    if (IsInterrupted()) return kExitInterrupted;
    if (worst == kExitOk) {
        std::cout << "Next: morvanectl restore brings the site back from its copies." << std::endl;
    }
    return worst;
}

}  // namespace

int RestoreFromServer(const FromServerOptions& options) {
    if (::geteuid() != 0) return Refuse("Fetching copies needs root; try with sudo.");
    const BackupServer server = KnownBackupServer();
    if (!server) {
        return Refuse("The policy names no backup server (backup_type 2 with backup_addr).");
    }
    const ApprovedStates states;
    PrintProblems(states.Problems());
    std::vector<ApprovedPart> parts;
    const bool is_all_found = SelectParts(states, options.paths, parts);
    if (parts.empty()) return kExitFailed;
    interrupted = 0;
    std::signal(SIGINT, InterruptFetch);
    std::signal(SIGTERM, InterruptFetch);
    std::vector<Lost> lost;
    const bool is_complete = FindLost(parts, lost);
    if (IsInterrupted()) return kExitInterrupted;
    const int otherwise = is_complete && is_all_found ? kExitOk : kExitFailed;
    if (lost.empty()) {
        std::cout << "No backup copy is lost." << std::endl;
        return otherwise;
    }
    if (options.is_dry_run) return kExitDifferences;
    const int declined = Ask(lost, server, options.yes);
    if (declined != kExitOk) return declined;
    return std::max(FetchAll(states, server, lost), otherwise);
}

}  // namespace Ctl
