#pragma once

#include <SentrelDirRule.h>
#include <sdk/FileDescriptor.h>

#include <string>

namespace Engine {

/// The way to something protected, from the rule's path down, as it was when the object was made:
/// looked at without following a symbolic link, so that none that was planted leads a restore or a
/// removal elsewhere. What lies above the rule's path is the administrator's, links included.
/// Holds one descriptor; one thread.
class ProtectedWay {
  public:
    /// `path` is the rule's path or lies below it; a trailing "/" is ignored.
    ProtectedWay(const SentrelDirRule& rule, const std::string& path);

    /// What cannot be gone through: a link or anything but a directory on the way, or a way that
    /// leaves the rule's path.
    bool IsBarred() const { return outside_ || ((HasLink() || IsBlocked()) && !is_last_); }

    bool HasLink() const { return end_ == End::kLink; }

    /// The topmost link is what `path` itself names.
    bool IsLinkLast() const { return HasLink() && is_last_; }

    /// The way ends at what is neither a directory nor a link.
    bool IsBlocked() const { return end_ == End::kOther; }

    /// Something on the way, or what `path` itself names, is not there.
    bool IsMissing() const { return end_ == End::kMissing; }

    /// Where the way ends, without a trailing "/": at the topmost link, missing thing or what is no
    /// directory, or at the directory that `path` names.
    const std::string& EndPath() const { return end_path_; }

    /// Removes the topmost link, or what is no directory, itself; true when it is gone.
    bool RemoveEnd();

    /// Makes a directory of what is missing, so that no link can be planted there any more. False
    /// with EEXIST when something came in between; the way is to be looked at anew.
    bool MakeMissing();

  private:
    enum class End { kReached, kLink, kOther, kMissing };

    void Walk(const std::string& anchor, const std::string& path);
    std::string EndName() const { return end_path_.substr(end_path_.rfind('/') + 1); }

    bool outside_ = false;
    bool is_last_ = false;
    End end_ = End::kReached;
    std::string end_path_;
    SDK::FileDescriptor parent_;  ///< the directory that it stands in
};

/// `path` without trailing "/", with which lstat would follow a link; "/" stays.
std::string WithoutTrailingSlash(std::string path);

}  // namespace Engine
