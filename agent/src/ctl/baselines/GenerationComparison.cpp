#include "ctl/baselines/GenerationComparison.h"

#include <utility>

namespace Ctl {

using Baseline::Difference;
using Baseline::ManifestEntry;

namespace {

Difference DifferenceOf(Difference::Kind kind, const ManifestEntry& entry,
                        std::string detail = "") {
    return {kind, std::string(entry.path), S_ISDIR(entry.mode), std::move(detail)};
}

/// Empty when the contents are equal.
std::string ContentDetail(const ManifestEntry& before, const ManifestEntry& after) {
    if (before.size != after.size) return "size";
    return before.content != after.content ? "content" : "";
}

}  // namespace

GenerationComparison::Cursor::Cursor(const Baseline::Manifest& manifest, const std::string& below)
    : manifest_(manifest), below_(below), index_(manifest.LowerBound(below)) {
    Load();
}

void GenerationComparison::Cursor::Load() {
    is_at_end_ = index_ >= manifest_.Size();
    if (is_at_end_) return;
    entry_ = manifest_.At(index_);
    is_at_end_ = !Baseline::IsWithin(entry_.path, below_);
}

void GenerationComparison::Cursor::Next() {
    ++index_;
    Load();
}

void GenerationComparison::Cursor::SkipBelow() {
    const std::string_view path = entry_.path;
    while (!is_at_end_ && Baseline::IsWithin(entry_.path, path)) Next();
}

GenerationComparison::GenerationComparison(const Baseline::Manifest& before,
                                           const Baseline::Manifest& after,
                                           const std::string& below)
    : before_(before, below), after_(after, below) {}

std::size_t GenerationComparison::Run(const std::function<void(const Difference&)>& found) {
    std::size_t objects = 0;
    for (; !before_.IsAtEnd() || !after_.IsAtEnd(); ++objects) {
        const int order = before_.IsAtEnd() ? 1
                          : after_.IsAtEnd()
                              ? -1
                              : Baseline::ComparePaths(before_.Entry().path, after_.Entry().path);
        if (order < 0) {
            TakeSingle(before_, Difference::Kind::kMissing, found);
        } else if (order > 0) {
            TakeSingle(after_, Difference::Kind::kAdded, found);
        } else {
            CompareBoth(found);
        }
    }
    return objects;
}

void GenerationComparison::TakeSingle(Cursor& side, Difference::Kind kind, const Found& found) {
    // Of an object that could not be copied nothing is approved.
    if (!side.Entry().IsOpen()) found(DifferenceOf(kind, side.Entry()));
    side.SkipBelow();
}

void GenerationComparison::CompareBoth(const Found& found) {
    const ManifestEntry before = before_.Entry();
    const ManifestEntry after = after_.Entry();
    if (before.IsOpen() || after.IsOpen() || before.Type() != after.Type()) {
        return CompareTypes(found);
    }
    struct stat info {};
    info.st_mode = after.mode;
    info.st_uid = after.user;
    info.st_gid = after.group;
    const std::string attributes = Baseline::AttributeDifference(before, info);
    const std::string content = ContentDetail(before, after);
    if (!content.empty()) found(DifferenceOf(Difference::Kind::kChanged, after, content));
    if (!attributes.empty()) found(DifferenceOf(Difference::Kind::kAttributes, after, attributes));
    before_.Next();
    after_.Next();
}

void GenerationComparison::CompareTypes(const Found& found) {
    const bool was_open = before_.Entry().IsOpen();
    const bool is_open = after_.Entry().IsOpen();
    const char* const detail = is_open    ? "could not be copied"
                               : was_open ? "could not be copied before"
                                          : "type";
    if (!was_open || !is_open) {
        found(DifferenceOf(Difference::Kind::kChanged, after_.Entry(), detail));
    }
    before_.SkipBelow();
    after_.SkipBelow();
}

}  // namespace Ctl
