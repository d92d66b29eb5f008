#pragma once

#include <sdk/text/SigningKey.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "baseline/Manifest.h"

namespace Baseline {

/// One approved state of a protected path.
struct Generation {
    unsigned int number = 0;
    std::shared_ptr<const Manifest> manifest;  ///< null: it cannot be used
    std::string problem;                       ///< why not, in words

    explicit operator bool() const { return manifest != nullptr; }
};

/// The signed manifests of all protected paths, below one directory that only root may enter: a
/// directory for each path with a file and a signature for each generation. Stateless; methods that
/// write must not run at the same time for one path.
class BaselineStore {
  public:
    static constexpr std::size_t kDefaultKept = 3;

    /// In the backup path: holds a directory for each path, named by NameOf, with the copies that
    /// were replaced since they were approved.
    static constexpr const char* kReplacedCopies = ".morvane-generations";

    /// What names the protected path among others: 16 hexadecimal digits.
    static std::string NameOf(const std::string& real_path, const std::string& backup_path);

    /// `directory` is made by the first write.
    explicit BaselineStore(std::string directory) : directory_(std::move(directory)) {}

    /// The key pair, which the first call makes: `signing.key` and `signing.pub`. The private part
    /// may be kept elsewhere. Null, with `error`, when there is none.
    std::unique_ptr<SDK::SigningKey> Key(std::string& error) const;

    /// There is a key, so that the other methods that read do not make one.
    bool HasKey() const;

    /// Why Commit cannot sign with `key`, or without one with the private part that is kept here;
    /// in words. Empty when it can.
    std::string WhyUnsigned(const SDK::SigningKey* key) const;

    /// The newest generation, its signature checked. Number 0: there is none yet.
    Generation Newest(const std::string& real_path, const std::string& backup_path) const;

    /// Generation `number`, its signature checked.
    Generation Get(const std::string& real_path, const std::string& backup_path,
                   unsigned int number) const;

    /// The numbers of the generations that are kept, oldest first.
    std::vector<unsigned int> Numbers(const std::string& real_path,
                                      const std::string& backup_path) const;

    /// There is a generation of any path, or one is being copied.
    bool HasAny() const;

    /// Each path's newest generation.
    std::vector<Generation> All() const;

    /// All generations that are kept, in no order.
    std::vector<Generation> AllKept() const;

    /// Writes and signs the next generation, then drops all but the newest `kept`. `key` is the
    /// private key where it is kept elsewhere; else null. Number 0 with a problem: nothing changed.
    Generation Commit(const ManifestWriter& writer, const ManifestInfo& info,
                      std::size_t kept = kDefaultKept, const SDK::SigningKey* key = nullptr) const;

    /// Removes all generations of the path. 0, or -1 (errno).
    int Forget(const std::string& real_path, const std::string& backup_path) const;

    // An approved state is being copied: until it is committed, the newest generation does not
    // describe the copies. Kept across restarts.
    int MarkCopying(const std::string& real_path, const std::string& backup_path) const;
    bool IsCopying(const std::string& real_path, const std::string& backup_path) const;

    // The identifier in a file at the top of the copies, by which they are recognised.

    /// Gives the backup path its identifier. 0, or -1 (errno).
    int MarkBackup(const std::string& real_path, const std::string& backup_path) const;
    /// The backup path has the identifier that it was given, or was never given one.
    bool IsMarkedBackup(const std::string& real_path, const std::string& backup_path) const;
    /// The identifier that the backup path was given; empty: none.
    std::string BackupId(const std::string& real_path, const std::string& backup_path) const;
    /// The backup path has this identifier; true for an empty one.
    static bool HasBackupId(const std::string& backup_path, const std::string& id);

  private:
    std::string DirectoryOf(const std::string& real_path, const std::string& backup_path) const;
    Generation Load(const std::string& directory, unsigned int number) const;
    int Sign(const std::string& file, const std::string& signature_file, const SDK::SigningKey* key,
             std::string& error) const;

    const std::string directory_;
};

}  // namespace Baseline
