#pragma once

#include <string>

namespace Engine {

/// Lets the agent's rsync end without its sleeps: from now on lib/librsync_nap.so is loaded into
/// the processes of the executable at `path`. Not where conf/agent.json says "rsync_nap": false,
/// nor where the library is missing or cannot be loaded: rsync then works the same, only slower,
/// the log and the status say why. `version_text` is what `path` --version prints without the
/// library. Blocks for the moment that the program runs. Any thread.
void UseRsyncNap(const std::string& path, const std::string& version_text);

}  // namespace Engine
