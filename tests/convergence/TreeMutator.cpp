#include "TreeMutator.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sdk/files/DirUtils.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>

namespace test {

namespace {

using SDK::FileDescriptor;

constexpr uid_t kMutatorUser = 33;
// These differ from the site's own modes and times. The oracle cannot see a change that a mutator
// reverts before the agent compares.
constexpr std::array<mode_t, 8> kModes = {0, 0600, 0640, 0700, 0777, 04755, 02750, 01777};
constexpr std::array<std::time_t, 2> kTimes = {1000000000, 2000000000};
constexpr int kFileFlags = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// The directory `path` below `root`; not open when a symbolic link is on the path.
FileDescriptor OpenBeneath(const std::string& root, const std::string& path) {
    const FileDescriptor top(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    return FileDescriptor(static_cast<int>(
        ::syscall(SYS_openat2, top.Get(), path.empty() ? "." : path.c_str(), &how, sizeof(how))));
}

void WriteAll(const FileDescriptor& file, const std::string& content) {
    if (file.IsOpen()) (void)!::write(file.Get(), content.data(), content.size());
}

/// chmod without following symbolic links.
void SetMode(int directory, const std::string& name, mode_t mode) {
    const FileDescriptor object(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    ::chmod(("/proc/self/fd/" + std::to_string(object.Get())).c_str(), mode);
}

}  // namespace

TreeMutator::TreeMutator(const TestSite& site, std::uint64_t seed)
    : site_(site), random_(seed), prefix_("a" + std::to_string(seed)) {}

TreeMutator::Entry TreeMutator::EntryInSite(const std::string& path) const {
    const std::size_t slash = path.rfind('/');
    const bool at_top = slash == std::string::npos;
    Entry entry;
    entry.name = at_top ? path : path.substr(slash + 1);
    entry.is_monitored = path.find(TestSite::kExcluded) == std::string::npos;
    entry.parent = OpenBeneath(site_.Site(), at_top ? "" : path.substr(0, slash));
    return entry;
}

TreeMutator::Entry TreeMutator::InitialFile() {
    return EntryInSite(OneOf(site_.Files(), random_));
}

TreeMutator::Entry TreeMutator::InitialDirectory() {
    return EntryInSite(site_.Directories()[1 + random_() % (site_.Directories().size() - 1)]);
}

TreeMutator::Entry TreeMutator::InitialOrNew() {
    if (OneIn(random_, 2)) return InitialFile();
    const std::string& directory = OneOf(site_.Directories(), random_);
    return EntryInSite((directory.empty() ? "" : directory + "/") + TestSite::Name(random_));
}

TreeMutator::Entry TreeMutator::NewOutside() {
    Entry entry;
    entry.parent = OpenBeneath(site_.Outside(), "");
    entry.name = prefix_ + "-" + std::to_string(outside_count_++);
    return entry;
}

void TreeMutator::RunRandomOperation() {
    using Operation = void (TreeMutator::*)();
    static constexpr std::array<Operation, 20> operations = {
        &TreeMutator::ChangeContent,
        &TreeMutator::ChangeContent,
        &TreeMutator::ChangeContent,
        &TreeMutator::ChangeContent,
        &TreeMutator::ChangeContent,
        &TreeMutator::ChangeKeepingSizeAndTime,
        &TreeMutator::ChangeKeepingSizeAndTime,
        &TreeMutator::ChangeAttributes,
        &TreeMutator::ChangeAttributes,
        &TreeMutator::ChangeAttributes,
        &TreeMutator::Remove,
        &TreeMutator::Remove,
        &TreeMutator::Move,
        &TreeMutator::Move,
        &TreeMutator::MoveOut,
        &TreeMutator::MoveIn,
        &TreeMutator::CreateHardLink,
        &TreeMutator::CreateSymlink,
        &TreeMutator::ReplaceByOtherType,
        &TreeMutator::CreateTree,
    };
    (this->*OneOf(operations, random_))();
}

void TreeMutator::OverflowQueue() const {
    unsigned long limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    const Entry site = EntryInSite("flood");
    // The kernel merges two identical consecutive events.
    for (unsigned long event = 0; event < limit + 100; ++event) {
        const std::string name = site.name + std::to_string(event % 2);
        const FileDescriptor file(
            ::openat(site.parent.Get(), name.c_str(), kFileFlags | O_CREAT, 0644));
        ::futimens(file.Get(), nullptr);
    }
}

void TreeMutator::ChangeContent() {
    const Entry entry = InitialOrNew();
    static constexpr std::array<int, 4> ways = {O_CREAT | O_TRUNC, O_CREAT | O_EXCL, O_APPEND, 0};
    const int way = OneOf(ways, random_);
    const std::string content = TestSite::Content(random_);
    if (!entry.is_monitored) ::unlinkat(entry.parent.Get(), entry.name.c_str(), 0);
    const FileDescriptor file(
        ::openat(entry.parent.Get(), entry.name.c_str(), kFileFlags | way, 0644));
    if (way == 0 && OneIn(random_, 2)) {
        (void)!::ftruncate(file.Get(), static_cast<off_t>(content.size()));
        return;
    }
    WriteAll(file, content);
    if (OneIn(random_, 8)) WriteAll(file, content);
}

void TreeMutator::ChangeKeepingSizeAndTime() {
    const Entry entry = InitialFile();
    const FileDescriptor file(::openat(entry.parent.Get(), entry.name.c_str(), kFileFlags));
    struct stat before {};
    if (!entry.is_monitored || ::fstat(file.Get(), &before) != 0 || !S_ISREG(before.st_mode))
        return;
    std::string content = TestSite::Content(random_);
    content.resize(static_cast<std::size_t>(before.st_size), 'x');
    WriteAll(file, content);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    if (!OneIn(random_, 4)) ::futimens(file.Get(), times);
}

void TreeMutator::ChangeAttributes() {
    const Entry entry = OneIn(random_, 3) ? InitialDirectory() : InitialFile();
    const mode_t mode = OneOf(kModes, random_);
    if (!entry.is_monitored) return;
    const auto what = random_() % 4;
    if (what == 0) {
        SetMode(entry.parent.Get(), entry.name, mode);
    } else if (what == 1) {
        ::fchownat(entry.parent.Get(), entry.name.c_str(), kMutatorUser, kMutatorUser,
                   AT_SYMLINK_NOFOLLOW);
    } else {
        const struct timespec times[2] = {{0, UTIME_OMIT}, {kTimes.at(what - 2), 0}};
        ::utimensat(entry.parent.Get(), entry.name.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
}

void TreeMutator::Remove() {
    if (OneIn(random_, 8)) {
        SDK::DirUtils::DeleteBeneath(
            site_.Site(), site_.Directories()[1 + random_() % (site_.Directories().size() - 1)]);
        return;
    }
    const Entry entry = InitialOrNew();
    ::unlinkat(entry.parent.Get(), entry.name.c_str(), 0);
}

void TreeMutator::Rename(const Entry& from, const Entry& to) {
    ::renameat(from.parent.Get(), from.name.c_str(), to.parent.Get(), to.name.c_str());
}

void TreeMutator::Exchange(const Entry& one, const Entry& other) {
    ::renameat2(one.parent.Get(), one.name.c_str(), other.parent.Get(), other.name.c_str(),
                RENAME_EXCHANGE);
}

void TreeMutator::Move() {
    const Entry from = OneIn(random_, 5) ? InitialDirectory() : InitialFile();
    const Entry to = OneIn(random_, 5) ? InitialDirectory() : InitialOrNew();
    OneIn(random_, 4) ? Exchange(from, to) : Rename(from, to);
}

void TreeMutator::MoveOut() {
    Rename(OneIn(random_, 5) ? InitialDirectory() : InitialFile(), NewOutside());
}

void TreeMutator::MoveIn() {
    Entry from = NewOutside();
    if (outside_count_ > 1 && OneIn(random_, 2)) {
        from.name = prefix_ + "-" +
                    std::to_string(random_() % static_cast<unsigned int>(outside_count_ - 1));
    } else {
        WriteAll(FileDescriptor(::openat(from.parent.Get(), from.name.c_str(),
                                         kFileFlags | O_CREAT | O_EXCL, 0644)),
                 TestSite::Content(random_));
    }
    Rename(from, InitialOrNew());
}

void TreeMutator::CreateHardLink() {
    const Entry from = InitialFile();
    const Entry to = InitialOrNew();
    if (!from.is_monitored || !to.is_monitored) return;
    ::linkat(from.parent.Get(), from.name.c_str(), to.parent.Get(), to.name.c_str(), 0);
}

void TreeMutator::CreateSymlink() {
    const std::array<std::string, 6> targets = {
        site_.LinkTarget(), site_.LinkTarget() + "/page",
        site_.Site(),       site_.Site() + "/" + OneOf(site_.Files(), random_),
        "nowhere",          "."};
    // Another user owns the link before it appears in the site.
    const Entry link = NewOutside();
    ::symlinkat(OneOf(targets, random_).c_str(), link.parent.Get(), link.name.c_str());
    ::fchownat(link.parent.Get(), link.name.c_str(), kMutatorUser, kMutatorUser,
               AT_SYMLINK_NOFOLLOW);
    const Entry place = OneIn(random_, 2) ? InitialDirectory() : InitialOrNew();
    Exchange(link, place);
    Rename(link, place);
}

void TreeMutator::ReplaceByOtherType() {
    const Entry entry = OneIn(random_, 2) ? InitialDirectory() : InitialFile();
    Rename(entry, NewOutside());
    switch (random_() % 3) {
        case 0:
            BuildTree(entry);
            break;
        case 1:
            ::mkfifoat(entry.parent.Get(), entry.name.c_str(), 0666);
            break;
        default:
            WriteAll(FileDescriptor(::openat(entry.parent.Get(), entry.name.c_str(),
                                             kFileFlags | O_CREAT | O_EXCL, 0666)),
                     TestSite::Content(random_));
    }
}

void TreeMutator::BuildTree(const Entry& top) {
    ::mkdirat(top.parent.Get(), top.name.c_str(), 0755);
    FileDescriptor directory(::openat(top.parent.Get(), top.name.c_str(),
                                      O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC));
    for (auto depth = random_() % 4; directory.IsOpen(); --depth) {
        for (auto files = random_() % 5; files > 0; --files) {
            const std::string name = TestSite::Name(random_);
            WriteAll(FileDescriptor(::openat(directory.Get(), name.c_str(),
                                             kFileFlags | O_CREAT | O_EXCL, 0644)),
                     TestSite::Content(random_));
        }
        if (depth == 0) return;
        ::mkdirat(directory.Get(), "deeper", 0755);
        directory = FileDescriptor(
            ::openat(directory.Get(), "deeper", O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC));
    }
}

void TreeMutator::CreateTree() {
    Entry place = InitialOrNew();
    if (OneIn(random_, 2)) {
        BuildTree(place);
        return;
    }
    const Entry built = NewOutside();
    BuildTree(built);
    Rename(built, place);
}

}  // namespace test
