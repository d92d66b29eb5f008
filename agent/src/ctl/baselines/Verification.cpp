// Owns one comparison of several protected paths. It must not print, nor choose what to compare.
#include "ctl/baselines/Verification.h"

#include <sdk/files/ExclusionPatterns.h>
#include <sdk/files/PathUtils.h>
#include <sdk/time/TimeUtils.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Ctl {

using Baseline::Difference;
using Baseline::TreeVerifier;

namespace {

constexpr double kMsPerSecond = 1000;
/// Ordered behind everything below a directory: names have no control character in front of it.
constexpr char kBehindAll = '\x01';

std::size_t EntriesOf(const ApprovedPart& part) {
    const Baseline::Manifest& manifest = *part.generation.manifest;
    if (part.below.empty()) return manifest.Size();
    return manifest.LowerBound(part.below + kBehindAll) - manifest.LowerBound(part.below);
}

}  // namespace

Verification::Verification(std::vector<ApprovedPart> parts, Options options, DifferenceList& list)
    : parts_(std::move(parts)), options_(std::move(options)), list_(list) {
    for (const ApprovedPart& part : parts_) total_ += EntriesOf(part);
}

bool Verification::Run() {
    const std::int64_t begun = SDK::TimeUtils::GetMonotonicMs();
    for (const ApprovedPart& part : parts_) {
        if (!options_.is_over()) Compare(part);
    }
    if (options_.is_over()) problems_.emplace_back("The comparison was interrupted.");
    seconds_ = static_cast<double>(SDK::TimeUtils::GetMonotonicMs() - begun) / kMsPerSecond;
    return problems_.empty();
}

void Verification::Compare(const ApprovedPart& part) {
    const Baseline::ManifestInfo& info = part.generation.manifest->Info();
    if (IsExcluded(info, part.below)) {
        problems_.push_back(info.real_path + part.below + " is excluded from the protection.");
        return;
    }
    const bool is_live = options_.side == TreeVerifier::Side::kLive;
    const std::string root = is_live ? LiveRoot(info) : CopyRoot(info);
    const auto anchor =
        SDK::PathAnchor::Open(info.is_file ? SDK::PathUtils::GetDirFromPath(root) : root);
    if (anchor == nullptr) return AddRootFault(part, root, errno);
    const std::size_t objects = Spent().objects;
    CompareTree(part, root, *anchor);
    if (EntriesOf(part) == 0 && Spent().objects == objects) {
        problems_.push_back("There is no " + info.real_path + part.below +
                            ", neither in the approved state nor now.");
    }
}

/// The protected path itself was removed or replaced: a difference like any other.
void Verification::AddRootFault(const ApprovedPart& part, const std::string& root, int error) {
    const bool is_directory = !part.generation.manifest->Info().is_file;
    if (error == ENOENT) {
        list_.Add({root, {Difference::Kind::kMissing, "", is_directory}});
    } else if (error == ENOTDIR || error == ELOOP) {
        list_.Add({root, {Difference::Kind::kChanged, "", false, "type"}});
    } else {
        problems_.push_back("Cannot open " + root + ": " + std::strerror(error) + ".");
    }
}

void Verification::CompareTree(const ApprovedPart& part, const std::string& root,
                               const SDK::PathAnchor& anchor) {
    const Baseline::ManifestInfo& info = part.generation.manifest->Info();
    const SDK::ExclusionPatterns exclusions(info.exclusions);
    TreeVerifier::Request request;
    request.root.anchor = &anchor;
    if (info.is_file) request.root.file = root.substr(root.rfind('/') + 1);
    request.manifest = part.generation.manifest.get();
    request.side = options_.side;
    request.full = options_.full;
    request.below = part.below;
    request.ignored = [&](const std::string& path, bool is_directory) {
        return exclusions.Match(info.real_path + path, is_directory);
    };
    request.is_over = options_.is_over;
    request.threads = options_.threads;
    request.found = [&](const Difference& difference) { list_.Add({root, difference}); };
    RunVerifier(std::move(request));
}

void Verification::RunVerifier(TreeVerifier::Request request) {
    TreeVerifier verifier(std::move(request));
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        running_ = &verifier;
    }
    const TreeVerifier::Summary summary = verifier.Run();
    const std::lock_guard<std::mutex> lock(mutex_);
    running_ = nullptr;
    done_.objects += summary.objects;
    done_.bytes += summary.bytes;
}

Effort Verification::Spent() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Effort effort = done_;
    effort.seconds = seconds_;
    return effort;
}

ComparisonProgress Verification::Progress() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    ComparisonProgress progress{done_.objects, total_, done_.bytes};
    if (running_ == nullptr) return progress;
    progress.done += running_->ObjectsSoFar();
    progress.bytes += running_->BytesSoFar();
    return progress;
}

}  // namespace Ctl
