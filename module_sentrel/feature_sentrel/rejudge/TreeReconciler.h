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

/// Goes through a protected path and its backup copy from end to end, a portion at a time, and
/// names every path that may not be as its copy, as if its change had just been announced. The way
/// back to a known state when events could not be kept. Reads only; what it names is judged by its
/// owner, on the same thread.
class TreeReconciler {
  public:
    /// A path that nobody needs to look at, nor below it; a directory's ends in "/".
    using Ignored = std::function<bool(const std::string& path)>;
    /// A path without a trailing "/", and the event bits that fit how it stands.
    using Named = std::function<void(const std::string& path, std::uint32_t raw_mask)>;

    /// `anchors` is borrowed.
    TreeReconciler(RuleAnchors& anchors, SentrelDirRule rule, Ignored ignored, Named named);

    /// Goes on until something was named or `until` is reached. False at the end.
    bool Step(std::chrono::steady_clock::time_point until);

  private:
    /// What a directory, or its copy, holds; gone through from the back.
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
    bool begun_ = false;
    std::vector<Directory> open_;
};

}  // namespace Engine
