#pragma once

#include <list>
#include <string>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Makes a backup path safe for copies that keep the site's owners: an owner of a page who can
/// reach its copy could make the agent restore what he wrote there. Stateless; backup task's
/// thread.
class BackupDirectory {
  public:
    /// Makes a missing backup path and its missing parents with mode 0700. Changes the mode of one
    /// that lets others in to 0700, and logs it, when it belongs to the agent's user, holds only
    /// copies and nobody needs to go through it. Returns why copies are not safe there, in words;
    /// empty when they are.
    static std::string Prepare(const std::string& backup_path,
                               const std::list<SentrelDirRule>& rules);
};

}  // namespace Engine
