#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>
#include <utility>

#include "places/RuleAnchors.h"

namespace Engine {

/// Keeps the object at a changed path open, so that the alarm can describe it after the page has
/// been restored: restoring must not wait for the description. Opens nothing for reading, follows
/// no link and changes nothing. Not thread-safe.
class PinnedFile {
  public:
    /// Holds nothing.
    PinnedFile() = default;

    /// Holds the object at `path`; nothing when it is missing or a link stands on the way to it.
    PinnedFile(const AnchoredRule& rule, const std::string& path);

    /// Holds the object `name` in the open directory `directory`; nothing when it is missing.
    PinnedFile(int directory, const std::string& name);

    /// Holds the open object.
    explicit PinnedFile(SDK::FileDescriptor object) : held_(std::move(object)) {}

    /// A path to the held object, also for commands, valid while this object lives; empty when
    /// nothing is held.
    std::string Path() const;

    /// The held object (O_PATH); -1 when nothing is held.
    int Descriptor() const { return held_.Get(); }

  private:
    SDK::FileDescriptor held_;
};

}  // namespace Engine
