#pragma once

#include <string>

namespace Engine {

/// The version that `rsync --version` prints in its first line, such as "3.5.0"; empty when there
/// is none.
std::string RsyncVersionFromText(const std::string& text);

/// True for versions that write and delete through a symbolic link that was put in place of a
/// directory, as whoever runs them.
bool FollowsPlantedLinks(const std::string& version);

/// Asks the executable at `path` for its version and notes it in the status; warns once in the log
/// when it is too old or unknown; then sets it up (SetUpRsync). Asked once per
/// installed file: `installed_anew` asks again. Blocks for the moment that the program runs. Any
/// thread.
void NoteRsyncVersion(const std::string& path, bool installed_anew);

}  // namespace Engine
