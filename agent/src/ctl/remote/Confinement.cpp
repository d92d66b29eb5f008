// Owns the rules of a confined process. It must not start one.
#include "ctl/remote/Confinement.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace Ctl {

namespace {

constexpr std::uint64_t kTruncate = 1ULL << 14;  ///< newer than the headers; third version
constexpr int kVersionWithTruncate = 3;
constexpr std::uint64_t kRead = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t kMake = LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
                                LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_WRITE_FILE;
constexpr std::uint64_t kNever = LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
                                 LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_SOCK;
constexpr std::array<const char*, 3> kSystem = {"/usr", "/lib", "/lib64"};
constexpr std::array<const char*, 8> kSystemFiles = {
    "/etc/ld.so.cache", "/etc/passwd",      "/etc/group",   "/etc/nsswitch.conf",
    "/etc/localtime",   "/etc/resolv.conf", "/dev/urandom", "/dev/null"};

/// 0: the kernel has no Landlock.
int LandlockVersion() {
    const long version =
        ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return version > 0 ? static_cast<int>(version) : 0;
}

bool Limit(__rlimit_resource resource, std::uint64_t value) {
    const rlimit limit{value, value};
    return ::setrlimit(resource, &limit) == 0;
}

/// Another user, who keeps one right of root: to reach the directories above his own.
bool LeaveRoot() {
    constexpr unsigned int kKept = 1U << CAP_DAC_READ_SEARCH;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> kept{};
    kept[0] = {kKept, kKept, kKept};
    return ::syscall(SYS_setgroups, 0, nullptr) == 0 &&
           ::syscall(SYS_setresgid, Confinement::kUser, Confinement::kUser, Confinement::kUser) ==
               0 &&
           ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 &&
           ::syscall(SYS_setresuid, Confinement::kUser, Confinement::kUser, Confinement::kUser) ==
               0 &&
           ::syscall(SYS_capset, &header, kept.data()) == 0 &&
           ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_DAC_READ_SEARCH, 0, 0) == 0;
}

}  // namespace

Confinement::Confinement(const Request& request) : request_(request) {
    const int version = LandlockVersion();
    if (version == 0) return;
    landlock_ruleset_attr handled{};
    const std::uint64_t truncate = version >= kVersionWithTruncate ? kTruncate : 0;
    handled.handled_access_fs = kRead | kMake | kNever | truncate;
    ruleset_.Reset(
        static_cast<int>(::syscall(SYS_landlock_create_ruleset, &handled, sizeof(handled), 0)));
    for (const char* path : kSystem) Allow(path, kRead);
    for (const char* path : kSystemFiles) Allow(path, LANDLOCK_ACCESS_FS_READ_FILE);
    Allow("/dev/null", LANDLOCK_ACCESS_FS_WRITE_FILE | truncate);
    for (const std::string& path : request_.readable) Allow(path, LANDLOCK_ACCESS_FS_READ_FILE);
    if (!Allow(request_.writable, kRead | kMake | truncate)) ruleset_.Reset();
}

bool Confinement::Allow(const std::string& path, std::uint64_t access) {
    const SDK::FileDescriptor object(::open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!object.IsOpen()) return false;
    landlock_path_beneath_attr rule{};
    rule.allowed_access = access;
    rule.parent_fd = object.Get();
    return ::syscall(SYS_landlock_add_rule, ruleset_.Get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) ==
           0;
}

bool Confinement::Enter() const {
    ::umask(S_IRWXG | S_IRWXO);
    return Limit(RLIMIT_FSIZE, request_.largest_file) && Limit(RLIMIT_AS, request_.memory) &&
           Limit(RLIMIT_CORE, 0) && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && LeaveRoot() &&
           (!IsComplete() || ::syscall(SYS_landlock_restrict_self, ruleset_.Get(), 0) == 0);
}

SDK::FileDescriptor ExecutableCopy(const std::string& path) {
    constexpr std::size_t kPiece = 1 << 30;
    const SDK::FileDescriptor program(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    SDK::FileDescriptor copy(::memfd_create("rsync", 0));
    struct stat info {};
    if (!program.IsOpen() || !copy.IsOpen() || ::fstat(program.Get(), &info) != 0) return {};
    for (off_t left = info.st_size; left > 0;) {
        const ssize_t count = ::sendfile(copy.Get(), program.Get(), nullptr, kPiece);
        if (count <= 0) return {};
        left -= count;
    }
    if (::fchmod(copy.Get(), S_IRUSR | S_IXUSR | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH) != 0) {
        return {};
    }
    return copy;
}

}  // namespace Ctl
