#pragma once

#include <string>

namespace Engine {

/// Gives the executable at `path`, and no other command, what makes it quick:
/// - lib/librsync_preload.so is loaded into it and ends its sleeps. Not where conf/agent.json says
///   "rsync_preload": false, nor where the library is missing or cannot be loaded: rsync then works
///   the same, only slower.
/// - It reads the option aliases of a home below conf/home that fits what it can do: aliases that
///   name the checksums instead of having them negotiated ("sha1"), and that copy ACLs within the
///   host ("acls").
/// Returns why the library is not in use; empty when it is. A fault is also logged. `version_text`
/// is what `path` --version prints before this call. Blocks until the program has answered, at most
/// 5 seconds. Thread-safe.
std::string SetUpRsync(const std::string& path, const std::string& version_text);

/// True when SetUpRsync has that rsync copy POSIX ACLs within the host.
bool KeepsAcls(const std::string& version_text);

/// True when the rsync that printed this has the checksum.
bool HasChecksum(const std::string& version_text, const std::string& name);

}  // namespace Engine
