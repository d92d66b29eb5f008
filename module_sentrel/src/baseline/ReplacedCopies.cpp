// Owns the directories of replaced copies. It must not decide what is replaced (its callers do) nor
// which generations are kept (BaselineStore does). Backup task's thread.
#include "baseline/ReplacedCopies.h"

#include <baseline/BaselineStore.h>
#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/time/TimeUtils.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "base/DirectoryListing.h"
#include "base/PathText.h"

namespace Engine {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

SDK::FileDescriptor OpenMade(int parent, const std::string& name) {
    if (::mkdirat(parent, name.c_str(), S_IRWXU) != 0 && errno != EEXIST) return {};
    return SDK::FileDescriptor(::openat(parent, name.c_str(), kDirectoryFlags));
}

std::string TextOf(unsigned int generation, unsigned int run) {
    return std::to_string(generation) + "." + std::to_string(run);
}

bool IsEmpty(int directory) {
    DirectoryListing listing(directory);
    return listing.IsOpen() && listing.Next() == nullptr && errno == 0;
}

/// Without replacing anything, where the file system can do that.
int Rename(int from, const std::string& name, const SDK::PathAnchor::Entry& to) {
    const int place = to.directory.Get();
    const int moved = ::renameat2(from, name.c_str(), place, to.name.c_str(), RENAME_NOREPLACE);
    if (moved == 0 || (errno != EINVAL && errno != ENOSYS)) return moved == 0 ? 0 : errno;
    return ::renameat(from, name.c_str(), place, to.name.c_str()) == 0 ? 0 : errno;
}

int Delete(int directory, const std::string& name) {
    return SDK::DirUtils::DeleteAt(directory, name) == 0 || errno == ENOENT ? 0 : errno;
}

/// The path of the object below a run's directory.
std::string KeptPath(const AnchoredRule& rule, const std::string& below) {
    return rule.IsFile() ? FileName(rule.RootPath()) : below;
}

}  // namespace

ReplacedCopies::ReplacedCopies(const AnchoredRule& rule, unsigned int generation)
    : rule_(rule), generation_(generation) {}

SDK::FileDescriptor ReplacedCopies::OpenAll() const {
    const SentrelDirRule& rule = rule_.Rule();
    const SDK::FileDescriptor all =
        rule_.OpenCopyDirectory(std::string("/") + Baseline::BaselineStore::kReplacedCopies);
    if (!all.IsOpen()) return {};
    const std::string name = Baseline::BaselineStore::NameOf(rule.real_path, rule.backup_path);
    return SDK::FileDescriptor(::openat(all.Get(), name.c_str(), kDirectoryFlags));
}

SDK::FileDescriptor ReplacedCopies::MakeAll() const {
    const SentrelDirRule& rule = rule_.Rule();
    const SDK::FileDescriptor copies = rule_.OpenCopyDirectory("");
    if (!copies.IsOpen()) return {};
    const SDK::FileDescriptor all =
        OpenMade(copies.Get(), Baseline::BaselineStore::kReplacedCopies);
    if (!all.IsOpen()) return {};
    return OpenMade(all.Get(), Baseline::BaselineStore::NameOf(rule.real_path, rule.backup_path));
}

std::vector<ReplacedCopies::Run> ReplacedCopies::RunsIn(int directory) {
    std::vector<Run> runs;
    for (const std::string& name : NamesIn(directory)) {
        const std::size_t point = name.find('.');
        if (point == std::string::npos) continue;
        Run run;
        std::from_chars(name.data(), name.data() + point, run.first);
        std::from_chars(name.data() + point + 1, name.data() + name.size(), run.second);
        if (name == TextOf(run.first, run.second)) runs.push_back(run);
    }
    std::sort(runs.begin(), runs.end());
    return runs;
}

SDK::FileDescriptor ReplacedCopies::OpenRun() {
    errno = 0;
    if (generation_ == 0) return {};
    all_ = MakeAll();
    if (!all_.IsOpen()) return {};
    unsigned int last = 0;
    for (const auto& [generation, run] : RunsIn(all_.Get())) {
        if (generation == generation_) last = run;
    }
    run_name_ = TextOf(generation_, last);
    SDK::FileDescriptor run;
    if (last > 0) run.Reset(::openat(all_.Get(), run_name_.c_str(), kDirectoryFlags));
    if (!run.IsOpen() || !IsEmpty(run.Get())) {
        errno = 0;
        if (last >= kMostRuns) return {};
        run_name_ = TextOf(generation_, last + 1);
        run = OpenMade(all_.Get(), run_name_);
    }
    return run;
}

bool ReplacedCopies::HasRun() {
    if (!run_.IsOpen()) run_ = OpenRun();
    return run_.IsOpen();
}

/// Makes the directories above the object's place. The place of the protected directory itself is
/// that of the run.
int ReplacedCopies::PlaceOf(const std::string& below, SDK::PathAnchor::Entry& place) {
    const std::string path = KeptPath(rule_, below);
    if (path.empty()) {
        run_.Reset();
        if (::unlinkat(all_.Get(), run_name_.c_str(), AT_REMOVEDIR) != 0) return errno;
        place = {std::move(all_), run_name_};
        return 0;
    }
    place.directory.Reset(::fcntl(run_.Get(), F_DUPFD_CLOEXEC, 0));
    std::size_t begin = 0;
    for (std::size_t slash = path.find('/'); slash != std::string::npos && place.IsOpen();
         begin = slash + 1, slash = path.find('/', begin)) {
        place.directory = OpenMade(place.directory.Get(), path.substr(begin, slash - begin));
    }
    place.name = path.substr(begin);
    return place.IsOpen() ? 0 : errno;
}

int ReplacedCopies::Keep(int directory, const std::string& name, const std::string& below) {
    return Move(directory, name, below, Stays::kYes);
}

int ReplacedCopies::Remove(int directory, const std::string& name, const std::string& below) {
    return Move(directory, name, below, Stays::kNo);
}

int ReplacedCopies::Move(int directory, const std::string& name, const std::string& below,
                         Stays stays) {
    struct stat info {};
    if (::fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    const bool may_stay = stays == Stays::kYes && !S_ISDIR(info.st_mode);
    if (HasRun()) {
        SDK::PathAnchor::Entry place;
        const int unplaced = PlaceOf(below, place);
        if (unplaced != 0) return unplaced;
        // With a second name the copy is never missing.
        if (may_stay &&
            ::linkat(directory, name.c_str(), place.directory.Get(), place.name.c_str(), 0) == 0) {
            return 0;
        }
        const int error = Rename(directory, name, place);
        if (error != EXDEV && error != EEXIST) return error;
    } else if (errno != 0) {
        return errno;
    }
    return may_stay ? 0 : Delete(directory, name);
}

std::vector<std::unique_ptr<SDK::PathAnchor>> ReplacedCopies::Runs(unsigned int from) const {
    std::vector<std::unique_ptr<SDK::PathAnchor>> anchors;
    const SDK::FileDescriptor all = OpenAll();
    if (!all.IsOpen()) return anchors;
    for (const auto& [generation, run] : RunsIn(all.Get())) {
        if (generation < from) continue;
        const std::string name = TextOf(generation, run);
        SDK::FileDescriptor directory(::openat(all.Get(), name.c_str(), kDirectoryFlags));
        if (!directory.IsOpen()) continue;
        anchors.push_back(SDK::PathAnchor::Hold(std::move(directory), "/" + name));
    }
    return anchors;
}

bool ReplacedCopies::Trim(const std::vector<unsigned int>& kept, std::int64_t limit_ms) const {
    const SDK::FileDescriptor all = OpenAll();
    if (!all.IsOpen()) return true;
    const std::int64_t end = SDK::TimeUtils::GetMonotonicMs() + limit_ms;
    for (const auto& [generation, run] : RunsIn(all.Get())) {
        if (std::find(kept.begin(), kept.end(), generation) != kept.end()) continue;
        const std::int64_t rest = end - SDK::TimeUtils::GetMonotonicMs();
        if (rest <= 0) return false;
        if (SDK::DirUtils::DeleteAt(all.Get(), TextOf(generation, run), rest) != 0 &&
            (errno == ETIMEDOUT || errno == ECANCELED)) {
            return false;
        }
    }
    return true;
}

}  // namespace Engine
