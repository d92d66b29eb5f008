#pragma once

#include <string>

namespace Engine {

/// Gives the executable at `path`, and no other command, what makes it quick: from now on
/// - lib/librsync_preload.so is loaded into it, which ends it without its sleeps. Not where
///   conf/agent.json says "rsync_preload": false, nor where the library is missing or cannot be
///   loaded: rsync then works the same, only slower, the log and the status say why;
/// - it reads the option aliases of conf/home/sha1, which name the checksums instead of leaving
/// them
///   to be negotiated, when it has these.
/// `version_text` is what `path` --version prints with nothing of this. Blocks for the moment that
/// the program runs. Any thread.
void SetUpRsync(const std::string& path, const std::string& version_text);

/// True when the rsync that printed this has the checksum.
bool HasChecksum(const std::string& version_text, const std::string& name);

}  // namespace Engine
