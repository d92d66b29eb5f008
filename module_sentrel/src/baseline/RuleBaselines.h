#pragma once

#include <baseline/BaselineStore.h>
#include <baseline/TreeWalk.h>
#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/SentrelDirRule.h"
#include "baseline/LentKey.h"
#include "baseline/ReplacedCopies.h"
#include "places/RuleAnchors.h"

namespace Engine {

/// The approved state of each protected path: which manifest is in force, and whether a backup copy
/// still is what it says. A path without a manifest is judged by its copies alone. Owned by
/// ModuleState. Thread-safe.
class RuleBaselines {
  public:
    using Known = std::shared_ptr<const Baseline::Manifest>;

    /// Keeps the manifests below `directory` from now on; none is in force.
    void Reset(const std::string& directory, std::size_t kept);

    /// Why a rule can or cannot go on with the state that was approved before.
    enum class Adoption {
        kAdopted,
        kNone,        ///< nothing was ever approved, or its copying did not end
        kUnapproved,  ///< others were approved, but not this one
        kUnusable,    ///< the manifest is damaged
        kLost,        ///< the copies are gone, perhaps not mounted
    };
    struct Adopted {
        Adoption outcome = Adoption::kNone;
        std::string problem = {};  ///< in words, of the last three
    };
    /// Puts the newest manifest into force.
    Adopted Adopt(const SentrelDirRule& rule);
    /// Why Adopt found no approved state that can be used; empty when it did. Nothing may be
    /// copied then: that would approve the present state.
    std::string Obstacle(const SentrelDirRule& rule) const;
    /// Adopt found the copies lost, and they are there again.
    bool IsBackupBack(const SentrelDirRule& rule) const;

    // The private key may be kept elsewhere.

    /// Takes the text of a PEM file for the next decision. Why not, in words; else empty.
    std::string Lend(const std::string& pem);
    /// Why nothing can be approved now, in words; else empty.
    std::string WhyUnsigned() const;
    LentKey& Lent() { return lent_; }
    /// Forgets keys of decisions that have not ended.
    void ForgetKeys();

    /// The present state is approved, `approval` says how and by whom: no manifest is in force
    /// until the next Commit, which signs with `key`, or without one with the key that is kept
    /// here. Remembered across restarts until then, without the key.
    void BeginCopying(const SentrelDirRule& rule, const std::string& approval,
                      LentKey::Key key = nullptr);
    /// Single objects are approved: no manifest is in force until the next Commit. Not remembered.
    void BeginAccepting(const SentrelDirRule& rule, const std::string& approval,
                        LentKey::Key key = nullptr);

    struct Commitment {
        std::timespec begun{};          ///< when the copies were begun
        std::vector<std::string> open;  ///< objects without a copy
        unsigned attribute_kinds = 0;   ///< as in BackupProgress
        bool is_copy_of_site = true;    ///< false: copies were changed, the site was not
        /// As in ManifestBuilder::Request.
        std::optional<std::vector<std::string>> parts = {};
        std::function<bool()> is_over;  ///< true ends the work
    };
    enum class Committed { kYes, kInterrupted, kFailed };
    /// Lists the copies in a new manifest and puts it into force. Reads what changed. Backup task.
    Committed Commit(const AnchoredRule& rule, Commitment commitment, std::string& problem);

    /// Keeps what is replaced among the copies from now on, which belongs to the newest generation.
    /// Borrows `rule`.
    ReplacedCopies Replaced(const AnchoredRule& rule) const;
    /// Removes what was kept of generations that are gone, for at most `limit_ms`. False when some
    /// is left.
    bool TrimReplaced(const AnchoredRule& rule, std::int64_t limit_ms) const;

    /// Generation `number`, whether it is in force or not.
    Baseline::Generation Get(const SentrelDirRule& rule, unsigned int number) const;

    /// The number of the one in force; 0: none.
    unsigned int GenerationOf(const SentrelDirRule& rule) const { return StateOf(rule).generation; }
    /// Null: none is in force.
    Known Of(const SentrelDirRule& rule) const;

    /// The manifest in force lists the object. `path` as in events.
    bool IsApproved(const AnchoredRule& rule, const std::string& path) const;

    /// One backup copy that is not what was approved.
    struct Fault {
        std::string path;  ///< of the object on the site, without a trailing "/"
        std::string what;  ///< in words
    };
    /// Compares the copies from `path` down with the manifest; nothing to compare with: no faults.
    /// Reads only copies that have changed since they were approved.
    std::vector<Fault> CheckCopies(const AnchoredRule& rule, const std::string& path) const;

    /// The backup path has the copies that were made there, as far as can be told at a glance. True
    /// while they are being made.
    bool HasBackup(const SentrelDirRule& rule) const;

    /// {"generation","approved_at","approval","objects"}; null: no manifest is in force.
    Json::Value ToJson(const std::string& real_path, const std::string& backup_path) const;

  private:
    using Key = std::pair<std::string, std::string>;
    /// What is known of one rule.
    struct State {
        Known in_force;
        unsigned int generation = 0;
        std::string obstacle;
        std::string approval;
        LentKey::Key key;
        std::optional<std::string> backup_id;  ///< that the copies must have; none: not read yet
    };
    static Key KeyOf(const SentrelDirRule& rule) { return {rule.real_path, rule.backup_path}; }
    Baseline::BaselineStore Store() const;
    std::vector<unsigned int> Numbers(const SentrelDirRule& rule) const;
    void Begin(const SentrelDirRule& rule, const std::string& approval, LentKey::Key key);
    State StateOf(const SentrelDirRule& rule) const;
    Baseline::ManifestInfo InfoOf(const SentrelDirRule& rule, unsigned attribute_kinds) const;

    mutable std::mutex mutex_;  ///< guards all below
    std::string directory_;
    std::size_t kept_ = Baseline::BaselineStore::kDefaultKept;
    mutable std::map<Key, State> states_;  ///< mutable: HasBackup keeps what it read

    LentKey lent_;
};

/// The protected path as a tree; without an anchor when it is gone.
Baseline::TreeRoot LiveTree(const AnchoredRule& rule);

/// The full path of `below`, a path relative to the protected path.
std::string PathIn(const AnchoredRule& rule, const std::string& below);

}  // namespace Engine
