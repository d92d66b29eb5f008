#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "shield/FanotifyGroup.h"
#include "shield/ShieldRule.h"

namespace Sentry {

/// Has the kernel ask about the files of all directories of one tree, on a thread of its own: those
/// that are there, those that come, and a tree that takes the place of this one. Follows no link
/// and crosses no mount.
class TreeGuard {
  public:
    /// Takes the directory as it is held now.
    using Rooted = std::function<void(std::shared_ptr<const SDK::PathAnchor> root)>;

    /// Borrows `rule` and `group`. `rooted` is called on the thread before anything is guarded.
    TreeGuard(const ShieldRule& rule, const FanotifyGroup& group, Rooted rooted);
    ~TreeGuard();
    TreeGuard(const TreeGuard&) = delete;
    TreeGuard& operator=(const TreeGuard&) = delete;

    /// All directories that were there are guarded.
    bool IsComplete() const { return is_complete_; }
    std::size_t Directories() const { return directories_; }

  private:
    void Work();
    void Begin();
    void Walk(const std::string& below);
    bool Guard(const std::string& below);
    void TakeChanges();

    const ShieldRule& rule_;
    const FanotifyGroup& group_;
    const Rooted rooted_;
    std::shared_ptr<const SDK::PathAnchor> root_;  ///< of the thread
    SDK::FileDescriptor changes_;                  ///< inotify: directories that come
    std::map<int, std::string> names_;             ///< by watch; relative, with a "/" behind
    SDK::FileDescriptor stop_;                     ///< an eventfd
    std::atomic<bool> is_complete_{false};
    std::atomic<std::size_t> directories_{0};
    std::thread thread_;
};

}  // namespace Sentry
