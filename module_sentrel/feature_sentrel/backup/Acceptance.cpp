// Copies accepted differences. It must not decide what is accepted (an operator does) nor write
// manifests (RuleBaselines does).
#include "feature_sentrel/backup/Acceptance.h"

#include <sdk/restore/TreeRestorer.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "feature_sentrel/backup/ObjectCopier.h"
#include "rsync/RsyncExclusions.h"

namespace Engine {

Acceptance::Acceptance(const AnchoredRule& rule, RuleBaselines::Known manifest,
                       ReplacedCopies& replaced, std::function<bool()> is_over)
    : rule_(rule),
      manifest_(std::move(manifest)),
      replaced_(replaced),
      is_over_(std::move(is_over)) {}

Acceptance::Result Acceptance::Take(const std::string& part) {
    const RsyncExclusions exclusions(rule_.Rule());
    std::vector<Baseline::Difference> differences;
    Baseline::TreeVerifier::Request request;
    request.root = LiveTree(rule_);
    request.manifest = manifest_.get();
    request.full = true;
    request.below = part;
    request.ignored = [&](const std::string& below, bool is_directory) {
        return exclusions.Match(PathIn(rule_, below), is_directory);
    };
    request.is_over = is_over_;
    request.found = [&](const Baseline::Difference& one) { differences.push_back(one); };
    if (request.root.anchor == nullptr) return {0, "the protected path is gone"};
    if (exclusions.Match(PathIn(rule_, part), false)) return {0, part + " is excluded."};
    if (!Baseline::TreeVerifier(std::move(request)).Run().is_complete) return {0, "interrupted"};
    Result result;
    for (const Baseline::Difference& difference : differences) {
        const int error = is_over_() ? ECANCELED : TakeOne(difference);
        if (error == 0) {
            ++result.objects;
        } else if (result.error.empty()) {
            const char* const why =
                error == ENOTDIR ? "its directory is not approved" : std::strerror(error);
            result.error = PathIn(rule_, difference.path) + ": " + why + ".";
        }
    }
    return result;
}

int Acceptance::TakeOne(const Baseline::Difference& difference) {
    const std::string path = PathIn(rule_, difference.path);
    struct stat live {};
    if (rule_.StatLive(path, live) != 0) {
        return errno == ENOENT ? Drop(path, difference.path) : errno;
    }
    if (S_ISDIR(live.st_mode)) return TakeDirectory(path, difference);
    const SDK::PathAnchor::Entry from = rule_.Live(path);
    const SDK::PathAnchor::Entry to = rule_.Copy(path);
    if (!from.IsOpen()) return errno;
    if (!to.IsOpen()) return ENOTDIR;  // its directory was not accepted
    if (from.name != to.name) return EINVAL;
    return ObjectCopier::CopyObject(
        {from.directory.Get(), to.directory.Get(), from.name, difference.path}, live, replaced_);
}

int Acceptance::Drop(const std::string& path, const std::string& below) {
    const SDK::PathAnchor::Entry copy = rule_.Copy(path);
    return copy.IsOpen() ? replaced_.Remove(copy.directory.Get(), copy.name, below) : errno;
}

int Acceptance::TakeDirectory(const std::string& path, const Baseline::Difference& difference) {
    const SDK::FileDescriptor live = rule_.OpenLiveDirectory(path);
    struct stat info {};
    if (!live.IsOpen() || ::fstat(live.Get(), &info) != 0) return errno;
    if (difference.kind == Baseline::Difference::Kind::kAttributes) {
        const SDK::FileDescriptor copy = rule_.OpenCopyDirectory(path);
        if (!copy.IsOpen()) return errno;
        ObjectCopier::AlignDirectory(live.Get(), copy.Get(), info);
        return 0;
    }
    struct stat copy {};
    if (rule_.StatCopy(path, copy) == 0 && !S_ISDIR(copy.st_mode)) {
        const int error = Drop(path, difference.path);
        if (error != 0) return error;
    }
    const RsyncExclusions exclusions(rule_.Rule());
    const SDK::ObjectRestorer::Result copied = SDK::TreeRestorer::Restore(
        rule_.Live(path), rule_.Copy(path), [&](const std::string& below, bool is_directory) {
            return exclusions.Match(path + "/" + below, is_directory);
        });
    return copied.outcome == SDK::ObjectRestorer::Outcome::kRestored
               ? 0
               : (copied.error != 0 ? copied.error : EIO);
}

}  // namespace Engine
