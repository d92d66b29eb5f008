#pragma once

#include <framework/FeaturePolicy.h>
#include <json/value.h>

#include <string>

namespace Engine {

class BackupProgress;

/// Turns a protection policy into the module's settings (SentrelUtils); keeps nothing itself.
/// Framework thread, with the module's gate held alone.
class SentrelFeaturePolicy : public Framework::FeaturePolicy {
  public:
    /// `progress` is borrowed; only Parse uses it.
    SentrelFeaturePolicy(const std::string& name, BackupProgress& progress);

    /// True when the document was accepted. On false, settings written before the failure stay.
    /// Throws std::out_of_range for an empty "filepath" or "ignored_subdir" element.
    bool Parse(const std::string& text) override;

    /// False, and the setting emptied, when the URL or the hash has no valid length.
    bool ParseRsyncPolicy(const Json::Value& content);
    /// Replaces the rules when "dirlist" is there. Logs and skips an entry whose path cannot be
    /// protected now.
    void ParseDirList(const Json::Value& content, int backup_type);
    void ParseDisableTime(const Json::Value& content);
    /// Disables the minutes of a range such as "22:00-06:30", both ends included, in addition to
    /// those disabled before. A malformed range changes nothing.
    void SetDisableWorkTime(const std::string& range);
    void ParseDiffPolicy(const Json::Value& content);

  private:
    BackupProgress& progress_;
};

/// The empty task policy of the inotify task.
class SentrelInotifyTaskPolicy : public Framework::TaskPolicy {
  public:
    explicit SentrelInotifyTaskPolicy(const std::string& name);
    bool Parse(const std::string& text) override;
};

}  // namespace Engine
