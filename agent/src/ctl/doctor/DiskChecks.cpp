// Looks at the file systems that the agent needs. It must not write to them.
#include <sdk/files/PathUtils.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>

#include <filesystem>
#include <set>
#include <system_error>

#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/doctor/HostChecks.h"
#include "ctl/doctor/WatchedPlaces.h"
#include "ctl/output/Terminal.h"
#include "ctl/protect/TreeSurvey.h"

namespace Ctl {

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::uint64_t kLow = 512 * kMiB;
constexpr std::uint64_t kNone = 16 * kMiB;
constexpr std::uint64_t kInodesPerFree = 50;  ///< fewer than 2 % are free
constexpr unsigned long kTmpfs = 0x01021994;
constexpr unsigned long kRamfs = 0x858458f6;

/// `path`, or what exists above it.
std::string Existing(const std::string& path) {
    std::filesystem::path existing = path;
    std::error_code error;
    while (!std::filesystem::exists(existing, error) && existing.has_relative_path()) {
        existing = existing.parent_path();
    }
    return existing;
}

bool IsInMemory(const std::string& path) {
    struct statfs info {};
    if (::statfs(path.c_str(), &info) != 0) return false;
    const auto type = static_cast<unsigned long>(info.f_type) & 0xffffffffUL;
    return type == kTmpfs || type == kRamfs;
}

void CheckSpace(const std::string& name, const struct statvfs& info, Findings& findings) {
    const std::uint64_t free = std::uint64_t{info.f_bavail} * info.f_frsize;
    const bool has_inodes = info.f_files == 0 || info.f_favail > info.f_files / kInodesPerFree;
    const std::string text = name + ": " + FormatBytes(static_cast<double>(free)) + " free";
    if (free < kNone || (info.f_files > 0 && info.f_favail == 0)) {
        findings.Add("disk_full", text + (has_inodes ? "" : ", no inodes"));
    } else if (free < kLow || !has_inodes) {
        findings.Add("disk_nearly_full", text + (has_inodes ? "" : ", few inodes"));
    } else {
        findings.Ok("disk space", text);
    }
}

class Disks {
  public:
    explicit Disks(Findings& findings) : findings_(findings) {}

    void Check(const std::string& path, bool holds_copies) {
        const std::string existing = Existing(path);
        const std::string name = Printable(path);
        struct stat info {};
        struct statvfs space {};
        if (::stat(existing.c_str(), &info) != 0 || ::statvfs(existing.c_str(), &space) != 0) {
            return;
        }
        for (const std::string& odd : SurveyPlace(existing)) {
            findings_.Add("odd_file_system", name + ": " + odd);
        }
        if (holds_copies && IsInMemory(existing)) {
            findings_.Add("odd_file_system", name + " lies in memory: a reboot loses it");
        }
        if (!seen_.insert(info.st_dev).second) return;
        if ((space.f_flag & ST_RDONLY) != 0) findings_.Add("read_only", name + " is read-only");
        CheckSpace(name, space, findings_);
    }

  private:
    Findings& findings_;
    std::set<dev_t> seen_;
};

}  // namespace

void CheckDisks(Findings& findings) {
    Disks disks(findings);
    disks.Check(SDK::PathUtils::GetInstallationPath(), true);
    for (const WatchedPlace& place : WatchedPlaces()) {
        if (!place.backup_path.empty()) disks.Check(place.backup_path, true);
        disks.Check(place.path, false);
    }
    if (!findings.Has("file systems")) findings.Ok("file systems", "all are local and writable");
}

}  // namespace Ctl
