#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

namespace Ctl {

/// One entry of the policy's "dirlist".
struct ProtectedEntry {
    std::string path;         ///< absolute, without a trailing "/"
    std::string backup_path;  ///< empty: none
    bool is_enabled = true;
    bool auto_restore = true;
    std::vector<std::string> subdirs = {};   ///< ignored_subdir
    std::vector<std::string> suffixes = {};  ///< ignored_postfix

    bool operator==(const ProtectedEntry& other) const;
};

/// A document of the feature sentrel_feature that is being edited. What it does not know stays as
/// it is. Not thread-safe.
class ProtectionPolicy {
  public:
    /// A document without paths, switched on, with differences in its alarms.
    ProtectionPolicy();

    /// None when `text` is no policy document.
    static std::optional<ProtectionPolicy> Parse(const std::string& text);

    bool IsOn() const;
    void SwitchOn();

    /// All entries with a path; disabled ones too.
    std::vector<ProtectedEntry> Entries() const;

    /// The entry whose path is `path`, links resolved.
    std::optional<ProtectedEntry> Find(const std::string& path) const;

    /// Replaces the entry of that path, or appends it.
    void Put(const ProtectedEntry& entry);

    /// Removes the entry whose path is `path`, links resolved.
    void Remove(const std::string& path);

    /// Sets the rsync of hosts of this architecture where none is named, and the digest where
    /// `program` itself is named. Other downloads stay.
    void UseRsync(const std::string& program, const std::string& digest);

    std::string Text() const;

  private:
    Json::Value& Content() { return root_["content"]; }
    const Json::Value& List() const { return root_["content"]["dirlist"]; }
    int IndexOf(const std::string& path) const;

    Json::Value root_{Json::objectValue};
};

/// `parent`/<path with "-" for "/">; numbered while it is in `taken`.
std::string DefaultBackupPath(const std::string& parent, const std::string& path,
                              const std::vector<std::string>& taken);

}  // namespace Ctl
