#pragma once

#include <list>
#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Makes a backup path fit for copies that keep the site's owners: whoever owns a page must not get
/// at its copy, or he would have the agent restore what he wrote there. Stateless; the backup
/// task's thread.
class BackupDirectory {
  public:
    /// Makes a missing backup path, with its missing parents, of mode 0700. One that belongs to the
    /// agent's user and lets others in becomes 0700, which is logged, provided that it holds
    /// nothing but copies and nobody needs to go through it. Empty when the copies are safe there;
    /// else why they are not, in words.
    static std::string Prepare(const std::string& backup_path,
                               const std::list<SentrelDirRule>& rules);
};

}  // namespace Engine
