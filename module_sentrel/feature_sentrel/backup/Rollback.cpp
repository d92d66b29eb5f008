// Brings older contents back among the copies. It must not decide which generation is wanted (an
// operator does), write manifests (RuleBaselines does) nor change the site.
#include "feature_sentrel/backup/Rollback.h"

#include <baseline/ContentHasher.h>
#include <fcntl.h>
#include <sdk/files/PathUtils.h>
#include <sdk/restore/AttributeComparison.h>
#include <sdk/restore/ObjectRestorer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

#include "base/PathText.h"

namespace Engine {

namespace {

using Baseline::Difference;
using Baseline::ManifestEntry;
using Entry = SDK::PathAnchor::Entry;

constexpr std::size_t kMostNamed = 3;

bool StatAt(const Entry& place, struct stat& info) {
    return ::fstatat(place.directory.Get(), place.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

int Renamed(const Entry& from, const Entry& to) {
    const int result =
        ::renameat(from.directory.Get(), from.name.c_str(), to.directory.Get(), to.name.c_str());
    return result == 0 ? 0 : errno;
}

/// Sets what differs of owner, mode and time. The owner comes first: its change clears setuid bits.
int Align(const Entry& place, const ManifestEntry& wanted) {
    const int directory = place.directory.Get();
    const char* const name = place.name.c_str();
    struct stat info {};
    if (!StatAt(place, info)) return errno;
    if ((info.st_uid != wanted.user || info.st_gid != wanted.group) &&
        (::fchownat(directory, name, wanted.user, wanted.group, AT_SYMLINK_NOFOLLOW) != 0 ||
         !StatAt(place, info))) {
        return errno;
    }
    const mode_t mode = wanted.mode & ALLPERMS;
    if (!S_ISLNK(wanted.mode) && (info.st_mode & ALLPERMS) != mode &&
        ::fchmodat(directory, name, mode, 0) != 0) {
        return errno;
    }
    const bool has_time = S_ISREG(wanted.mode) || S_ISLNK(wanted.mode);
    if (!has_time || info.st_mtim.tv_sec == wanted.modified) return 0;
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, timespec{wanted.modified, 0}};
    return ::utimensat(directory, name, times.data(), AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

}  // namespace

Rollback::Rollback(const AnchoredRule& rule, RuleBaselines::Known wanted, unsigned int number,
                   ReplacedCopies& replaced, std::function<bool()> is_over)
    : rule_(rule),
      wanted_(std::move(wanted)),
      replaced_(replaced),
      is_over_(std::move(is_over)),
      present_exclusions_(rule.Rule()),
      former_exclusions_(wanted_->Info().exclusions),
      runs_(replaced.Runs(number)) {}

/// What was excluded then is not in the manifest, which does not mean that it was not there.
bool Rollback::IsIgnored(const std::string& below, bool is_directory) const {
    const std::string path = PathIn(rule_, below);
    return !below.empty() && (present_exclusions_.Match(path, is_directory) ||
                              former_exclusions_.Match(path, is_directory));
}

Rollback::Result Rollback::Plan(const std::string& part) {
    std::vector<Difference> differences;
    if (!Compare(part, differences)) return {0, "The search for the contents was interrupted."};
    PlanDirectoriesAbove(part);
    for (const Difference& difference : differences) PlanDifference(difference);
    PlanTimes(part);
    if (is_over_()) return {0, "The search for the contents was interrupted."};
    return lost_count_ > 0 ? Problem() : Result{steps_.size()};
}

/// Sorted; of one path first what replaces most of it.
bool Rollback::Compare(const std::string& part, std::vector<Difference>& differences) const {
    const std::string directory = rule_.IsFile() ? ParentPath(rule_.RootPath()) : rule_.RootPath();
    SDK::FileDescriptor opened = rule_.OpenCopyDirectory(directory);
    if (!opened.IsOpen()) {
        differences.push_back({Difference::Kind::kMissing, part});
        return true;
    }
    const auto anchor = SDK::PathAnchor::Hold(std::move(opened), directory);
    Baseline::TreeVerifier::Request request;
    request.root = {anchor.get(), rule_.IsFile() ? FileName(rule_.RootPath()) : std::string()};
    request.manifest = wanted_.get();
    request.side = Baseline::TreeVerifier::Side::kCopies;
    request.below = part;
    request.ignored = [this](const std::string& below, bool is_directory) {
        return IsIgnored(below, is_directory);
    };
    request.is_over = is_over_;
    request.found = [&](const Difference& difference) { differences.push_back(difference); };
    const bool is_complete = Baseline::TreeVerifier(std::move(request)).Run().is_complete;
    std::stable_sort(differences.begin(), differences.end(),
                     [](const Difference& a, const Difference& b) {
                         const int order = Baseline::ComparePaths(a.path, b.path);
                         return order != 0 ? order < 0 : a.kind < b.kind;
                     });
    return is_complete;
}

void Rollback::PlanDifference(const Difference& difference) {
    if (IsIgnored(difference.path, difference.is_directory)) return;
    if (!planned_.insert(difference.path).second) return;
    const std::size_t entry = wanted_->LowerBound(difference.path);
    switch (difference.kind) {
        case Difference::Kind::kAdded:
            steps_.push_back({Step::What::kRemove, difference.path});
            break;
        case Difference::Kind::kMissing:
            PlanTree(difference.path);
            break;
        case Difference::Kind::kAttributes:
            steps_.push_back({Step::What::kAlign, difference.path, entry});
            break;
        case Difference::Kind::kChanged:
            if (difference.detail != "type") return PlanObject(entry);
            steps_.push_back({Step::What::kRemove, difference.path});
            PlanTree(difference.path);
            break;
    }
}

/// The object and all below it.
void Rollback::PlanTree(const std::string& path) {
    for (std::size_t i = wanted_->LowerBound(path); i < wanted_->Size(); ++i) {
        const ManifestEntry entry = wanted_->At(i);
        if (!Baseline::IsWithin(entry.path, path) || is_over_()) return;
        const std::string one(entry.path);
        if (entry.IsOpen() || IsIgnored(one, S_ISDIR(entry.mode))) {
            while (i + 1 < wanted_->Size() && Baseline::IsWithin(wanted_->At(i + 1).path, one)) ++i;
            continue;
        }
        planned_.insert(one);
        if (S_ISDIR(entry.mode)) {
            steps_.push_back({Step::What::kMakeDirectory, one, i});
        } else {
            PlanObject(i);
        }
    }
}

void Rollback::PlanObject(std::size_t index) {
    const ManifestEntry entry = wanted_->At(index);
    std::size_t run = 0;
    if (FindContent(entry, run)) {
        steps_.push_back({Step::What::kPutBack, std::string(entry.path), index, run});
    } else if (++lost_count_ <= kMostNamed) {
        lost_.push_back(PathIn(rule_, std::string(entry.path)));
    }
}

/// The content of a device or pipe is its type.
bool Rollback::FindContent(const ManifestEntry& entry, std::size_t& run) const {
    const std::string path = rule_.IsFile() ? FileName(rule_.RootPath()) : std::string(entry.path);
    const bool has_content = entry.Type() == S_IFREG || entry.Type() == S_IFLNK;
    for (run = 0; run < runs_.size() && !is_over_(); ++run) {
        const Entry kept = runs_[run]->OpenParent(path);
        struct stat info {};
        if (!kept.IsOpen() || !StatAt(kept, info) || entry.Type() != (info.st_mode & S_IFMT)) {
            continue;
        }
        if (!has_content) return true;
        if (entry.size != static_cast<std::uint64_t>(info.st_size)) continue;
        Baseline::ContentHasher::Result found;
        if (Baseline::DigestOf(kept.directory.Get(), kept.name, entry.size, is_over_, found) &&
            found.digest == entry.content) {
            return true;
        }
    }
    return false;
}

/// Of a part that is gone with the directories that hold it.
void Rollback::PlanDirectoriesAbove(const std::string& part) {
    for (std::size_t slash = part.find('/'); slash != std::string::npos;
         slash = part.find('/', slash + 1)) {
        const std::string above = part.substr(0, slash);
        const std::size_t index = wanted_->LowerBound(above);
        struct stat info {};
        if (index == wanted_->Size() || wanted_->At(index).path != above ||
            !S_ISDIR(wanted_->At(index).mode) || rule_.StatCopy(PathIn(rule_, above), info) == 0) {
            continue;
        }
        steps_.push_back({Step::What::kMakeDirectory, above, index});
    }
}

/// A manifest knows times, but no comparison with it tells them.
void Rollback::PlanTimes(const std::string& part) {
    for (std::size_t i = wanted_->LowerBound(part); i < wanted_->Size() && !is_over_(); ++i) {
        const ManifestEntry entry = wanted_->At(i);
        if (!Baseline::IsWithin(entry.path, part)) return;
        const std::string path(entry.path);
        struct stat info {};
        if (entry.IsOpen() || (entry.Type() != S_IFREG && entry.Type() != S_IFLNK) ||
            planned_.count(path) > 0 || IsIgnored(path, false) ||
            rule_.StatCopy(PathIn(rule_, path), info) != 0 ||
            info.st_mtim.tv_sec == entry.modified) {
            continue;
        }
        steps_.push_back({Step::What::kAlign, path, i});
    }
}

Rollback::Result Rollback::Problem() const {
    std::string names;
    for (const std::string& path : lost_) names += (names.empty() ? "" : ", ") + path;
    if (lost_count_ > lost_.size()) {
        names += " and " + std::to_string(lost_count_ - lost_.size()) + " more";
    }
    return {0, "Nothing was changed, because these contents are not kept: " + names + "."};
}

Rollback::Result Rollback::CarryOut() {
    Result result;
    for (const Step& step : steps_) {
        const int error = CarryOut(step);
        if (error != 0) {
            result.error = "The copy of " + PathIn(rule_, step.path) +
                           " cannot be changed: " + std::strerror(error) + "; repeat the rollback.";
            return result;
        }
        ++result.objects;
    }
    return result;
}

int Rollback::CarryOut(const Step& step) {
    const Entry copy = rule_.Copy(PathIn(rule_, step.path));
    if (!copy.IsOpen()) return errno;
    switch (step.what) {
        case Step::What::kRemove:
            return replaced_.Remove(copy.directory.Get(), copy.name, step.path);
        case Step::What::kMakeDirectory:
            return MakeDirectory(step, copy);
        case Step::What::kPutBack:
            return PutBack(step, copy);
        case Step::What::kAlign:
            break;
    }
    return Align(copy, wanted_->At(step.entry));
}

int Rollback::MakeDirectory(const Step& step, const Entry& copy) {
    if (::mkdirat(copy.directory.Get(), copy.name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return errno;
    }
    const int error = Align(copy, wanted_->At(step.entry));
    // A manifest has no extended attributes; a kept directory may have them.
    for (const auto& run : runs_) {
        const Entry kept = run->OpenParent(step.path);
        struct stat info {};
        if (!kept.IsOpen() || !StatAt(kept, info) || !S_ISDIR(info.st_mode)) continue;
        const auto attributes =
            SDK::AttributeComparison::Read(kept.directory.Get(), kept.name, SDK::kAllAttributes);
        SDK::AttributeComparison::Make(copy.directory.Get(), copy.name, attributes,
                                       SDK::kAllAttributes);
        break;
    }
    return error;
}

int Rollback::PutBack(const Step& step, const Entry& copy) {
    const std::string path = rule_.IsFile() ? FileName(rule_.RootPath()) : step.path;
    const ManifestEntry wanted = wanted_->At(step.entry);
    const Entry kept = runs_[step.run]->OpenParent(path);
    struct stat info {};
    if (!kept.IsOpen() || !StatAt(kept, info)) return errno;
    const int unkept = replaced_.Keep(copy.directory.Get(), copy.name, step.path);
    if (unkept != 0) return unkept;
    if (info.st_nlink == 1) {
        const int error = Align(kept, wanted);
        return error != 0 ? error : Renamed(kept, copy);
    }
    // Another name of it may be a copy that is in use.
    const SDK::ObjectRestorer::Result copied =
        SDK::ObjectRestorer::Restore(kept, copy, std::numeric_limits<off_t>::max());
    if (copied.outcome != SDK::ObjectRestorer::Outcome::kRestored) {
        return copied.error != 0 ? copied.error : EIO;
    }
    return Align(copy, wanted);
}

}  // namespace Engine
