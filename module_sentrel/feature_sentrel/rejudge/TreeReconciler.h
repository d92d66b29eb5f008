#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "places/RuleAnchors.h"

namespace Engine {

/// Walks a protected path and its backup copy, a portion at a time, and names every path that may
/// differ, as if an event had just reported it. It is the way back to a known state when events
/// could not be kept. Reads only. The owner judges the named paths on the same thread.
class TreeReconciler {
  public:
    /// True for a path that is skipped with all below it; a directory's ends in "/".
    using Ignored = std::function<bool(const std::string& path)>;
    /// Receives a path without a trailing "/", and the event bits that fit its state.
    using Named = std::function<void(const std::string& path, std::uint32_t raw_mask)>;

    /// `anchors` is borrowed. `attribute_kinds`: the extended attributes that the copies have.
    TreeReconciler(RuleAnchors& anchors, SentrelDirRule rule, Ignored ignored, Named named,
                   unsigned attribute_kinds);

    /// Continues until a path was named or `until` is reached. False at the end.
    bool Step(std::chrono::steady_clock::time_point until);

  private:
    /// The names in a directory and its copy; taken from the back.
    struct Directory {
        std::string path;  ///< ends in "/"
        std::vector<std::string> names;
    };

    void Open(const std::string& path);
    bool Look(const std::string& path);
    bool LookAtDirectory(const std::string& path);
    struct stat LiveStatus(const std::string& path) const;
    struct stat CopyStatus(const std::string& path) const;
    bool Name(const std::string& path, std::uint32_t raw_mask);

    RuleAnchors& all_anchors_;
    const SentrelDirRule rule_;
    std::shared_ptr<const AnchoredRule> anchors_;  ///< as they were when the last step began
    const Ignored ignored_;
    const Named named_;
    const unsigned attribute_kinds_;
    bool begun_ = false;
    std::vector<Directory> open_;
};

}  // namespace Engine
