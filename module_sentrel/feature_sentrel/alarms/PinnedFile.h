#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>

#include "places/RuleAnchors.h"

namespace Engine {

/// Keeps hold of what stands at a changed path, so that the alarm can describe it after the page
/// has been put back: the page comes first, the description may take its time. Opens nothing for
/// reading, follows no link and changes nothing. One thread at a time.
class PinnedFile {
  public:
    /// Holds nothing.
    PinnedFile() = default;

    /// Holds what stands at `path` now, whatever it is; nothing when it is missing or a link
    /// stands on the way to it.
    PinnedFile(const AnchoredRule& rule, const std::string& path);

    /// Where what is held can be looked at and read while the object lives, also by commands that
    /// are run; empty when nothing is held.
    std::string Path() const;

  private:
    SDK::FileDescriptor held_;
};

}  // namespace Engine
