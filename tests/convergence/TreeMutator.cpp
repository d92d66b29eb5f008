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

constexpr uid_t kMutator = 33;
// Neither the site's own modes nor the present time, which may be that of the copy to the second:
// of a change that the mutator takes back before it is judged nobody can tell.
constexpr std::array<mode_t, 8> kModes = {0, 0600, 0640, 0700, 0777, 04755, 02750, 01777};
constexpr std::array<std::time_t, 2> kTimes = {1000000000, 2000000000};
constexpr int kFileFlags = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// The directory `path` below `root`; not open where a link is on the way.
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

/// chmod that follows no link.
void SetMode(int directory, const std::string& name, mode_t mode) {
    const FileDescriptor object(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    ::chmod(("/proc/self/fd/" + std::to_string(object.Get())).c_str(), mode);
}

}  // namespace

TreeMutator::TreeMutator(const TestSite& site, std::uint64_t seed)
    : site_(site), random_(seed), name_("a" + std::to_string(seed)) {}

TreeMutator::Spot TreeMutator::InSite(const std::string& path) const {
    const std::size_t slash = path.rfind('/');
    const bool at_top = slash == std::string::npos;
    Spot spot;
    spot.name = at_top ? path : path.substr(slash + 1);
    spot.is_heard = spot.name.back() != '.' && path.find(TestSite::kExcluded) == std::string::npos;
    spot.parent = OpenBeneath(site_.Site(), at_top ? "" : path.substr(0, slash));
    return spot;
}

TreeMutator::Spot TreeMutator::Known() {
    return InSite(OneOf(site_.Files(), random_));
}

TreeMutator::Spot TreeMutator::KnownDirectory() {
    return InSite(site_.Directories()[1 + random_() % (site_.Directories().size() - 1)]);
}

TreeMutator::Spot TreeMutator::Any() {
    if (Once(random_, 2)) return Known();
    const std::string& directory = OneOf(site_.Directories(), random_);
    return InSite((directory.empty() ? "" : directory + "/") + TestSite::Name(random_));
}

TreeMutator::Spot TreeMutator::Beside() {
    Spot spot;
    spot.parent = OpenBeneath(site_.Outside(), "");
    spot.name = name_ + "-" + std::to_string(made_++);
    return spot;
}

void TreeMutator::Act() {
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
        &TreeMutator::Link,
        &TreeMutator::PlantLink,
        &TreeMutator::ChangeKind,
        &TreeMutator::PlantTree,
    };
    (this->*OneOf(operations, random_))();
}

void TreeMutator::Flood() const {
    unsigned long limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    const Spot site = InSite("flood");
    // Two of the same in succession would count as one.
    for (unsigned long event = 0; event < limit + 100; ++event) {
        const std::string name = site.name + std::to_string(event % 2);
        const FileDescriptor file(
            ::openat(site.parent.Get(), name.c_str(), kFileFlags | O_CREAT, 0644));
        ::futimens(file.Get(), nullptr);
    }
}

void TreeMutator::ChangeContent() {
    const Spot spot = Any();
    static constexpr std::array<int, 4> ways = {O_CREAT | O_TRUNC, O_CREAT | O_EXCL, O_APPEND, 0};
    const int way = OneOf(ways, random_);
    const std::string content = TestSite::Content(random_);
    if (!spot.is_heard) ::unlinkat(spot.parent.Get(), spot.name.c_str(), 0);
    const FileDescriptor file(
        ::openat(spot.parent.Get(), spot.name.c_str(), kFileFlags | way, 0644));
    if (way == 0 && Once(random_, 2)) {
        (void)!::ftruncate(file.Get(), static_cast<off_t>(content.size()));
        return;
    }
    WriteAll(file, content);
    if (Once(random_, 8)) WriteAll(file, content);
}

void TreeMutator::ChangeKeepingSizeAndTime() {
    const Spot spot = Known();
    const FileDescriptor file(::openat(spot.parent.Get(), spot.name.c_str(), kFileFlags));
    struct stat before {};
    if (!spot.is_heard || ::fstat(file.Get(), &before) != 0 || !S_ISREG(before.st_mode)) return;
    std::string content = TestSite::Content(random_);
    content.resize(static_cast<std::size_t>(before.st_size), 'x');
    WriteAll(file, content);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    if (!Once(random_, 4)) ::futimens(file.Get(), times);
}

void TreeMutator::ChangeAttributes() {
    const Spot spot = Once(random_, 3) ? KnownDirectory() : Known();
    const mode_t mode = OneOf(kModes, random_);
    if (!spot.is_heard) return;
    const auto what = random_() % 4;
    if (what == 0) {
        SetMode(spot.parent.Get(), spot.name, mode);
    } else if (what == 1) {
        ::fchownat(spot.parent.Get(), spot.name.c_str(), kMutator, kMutator, AT_SYMLINK_NOFOLLOW);
    } else {
        const struct timespec times[2] = {{0, UTIME_OMIT}, {kTimes.at(what - 2), 0}};
        ::utimensat(spot.parent.Get(), spot.name.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
}

void TreeMutator::Remove() {
    if (Once(random_, 8)) {
        SDK::DirUtils::DeleteBeneath(
            site_.Site(), site_.Directories()[1 + random_() % (site_.Directories().size() - 1)]);
        return;
    }
    const Spot spot = Any();
    ::unlinkat(spot.parent.Get(), spot.name.c_str(), 0);
}

void TreeMutator::Rename(const Spot& from, const Spot& to) {
    ::renameat(from.parent.Get(), from.name.c_str(), to.parent.Get(), to.name.c_str());
}

void TreeMutator::Exchange(const Spot& one, const Spot& other) {
    ::renameat2(one.parent.Get(), one.name.c_str(), other.parent.Get(), other.name.c_str(),
                RENAME_EXCHANGE);
}

void TreeMutator::Move() {
    const Spot from = Once(random_, 5) ? KnownDirectory() : Known();
    const Spot to = Once(random_, 5) ? KnownDirectory() : Any();
    Once(random_, 4) ? Exchange(from, to) : Rename(from, to);
}

void TreeMutator::MoveOut() {
    Rename(Once(random_, 5) ? KnownDirectory() : Known(), Beside());
}

void TreeMutator::MoveIn() {
    Spot from = Beside();
    if (made_ > 1 && Once(random_, 2)) {
        from.name = name_ + "-" + std::to_string(random_() % static_cast<unsigned int>(made_ - 1));
    } else {
        WriteAll(FileDescriptor(::openat(from.parent.Get(), from.name.c_str(),
                                         kFileFlags | O_CREAT | O_EXCL, 0644)),
                 TestSite::Content(random_));
    }
    Rename(from, Any());
}

void TreeMutator::Link() {
    const Spot from = Known();
    const Spot to = Any();
    if (!from.is_heard || !to.is_heard) return;
    ::linkat(from.parent.Get(), from.name.c_str(), to.parent.Get(), to.name.c_str(), 0);
}

void TreeMutator::PlantLink() {
    const std::array<std::string, 6> targets = {
        site_.Bystander(), site_.Bystander() + "/page",
        site_.Site(),      site_.Site() + "/" + OneOf(site_.Files(), random_),
        "nowhere",         "."};
    // It belongs to another user from the moment at which it stands in the site.
    const Spot link = Beside();
    ::symlinkat(OneOf(targets, random_).c_str(), link.parent.Get(), link.name.c_str());
    ::fchownat(link.parent.Get(), link.name.c_str(), kMutator, kMutator, AT_SYMLINK_NOFOLLOW);
    const Spot place = Once(random_, 2) ? KnownDirectory() : Any();
    Exchange(link, place);
    Rename(link, place);
}

void TreeMutator::ChangeKind() {
    const Spot spot = Once(random_, 2) ? KnownDirectory() : Known();
    Rename(spot, Beside());
    switch (random_() % 3) {
        case 0:
            BuildTree(spot);
            break;
        case 1:
            ::mkfifoat(spot.parent.Get(), spot.name.c_str(), 0666);
            break;
        default:
            WriteAll(FileDescriptor(::openat(spot.parent.Get(), spot.name.c_str(),
                                             kFileFlags | O_CREAT | O_EXCL, 0666)),
                     TestSite::Content(random_));
    }
}

void TreeMutator::BuildTree(const Spot& top) {
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

void TreeMutator::PlantTree() {
    Spot place = Any();
    if (Once(random_, 2)) {
        BuildTree(place);
        return;
    }
    const Spot built = Beside();
    BuildTree(built);
    Rename(built, place);
}

}  // namespace test
