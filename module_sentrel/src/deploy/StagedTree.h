#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>

#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// The directory of one deploy below the installation: `upper` (what the command changes), `work`
/// (the kernel's own), `tree` (where a deploy without a command is mounted), `deploy.json` (the
/// journal), `changes` and `lock`. Only root gets there. Not thread-safe.
class StagedTree {
  public:
    /// `id` comes from IsId.
    explicit StagedTree(const std::string& id);

    /// Where the directories of all deploys are.
    static std::string Home();
    static bool IsId(const std::string& id);
    static std::string NewId();
    /// The ids of all directories there.
    static std::vector<std::string> All();

    const std::string& Path() const { return path_; }

    /// Makes the directories; `upper` gets the owner, mode and attributes of `root`, an open
    /// directory. 0, or -1 (errno).
    int Make(int root) const;

    /// The upper directory. Null unless it and all above it below the installation are root's.
    std::unique_ptr<SDK::PathAnchor> Upper() const;

    /// A living morvanectl holds the deploy.
    bool IsLocked() const;

    /// Seconds since it was made; a large number when that cannot be told.
    long Age() const;

    /// Unmounts the tree and removes all. False when something is left, for example because it is
    /// still mounted elsewhere.
    bool Remove() const;

    std::string ReadFile(const std::string& name) const;
    /// In one step, and synced. 0, or -1 (errno).
    int WriteFile(const std::string& name, const std::string& text) const;

  private:
    const std::string id_;
    const std::string path_;
};

}  // namespace Engine
