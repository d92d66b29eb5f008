#include "feature_sentrel/alarms/PinnedFile.h"

#include <fcntl.h>
#include <unistd.h>

namespace Engine {

PinnedFile::PinnedFile(const AnchoredRule& rule, const std::string& path) {
    const SDK::PathAnchor::Entry entry = rule.Live(path);
    if (entry.IsOpen()) *this = PinnedFile(entry.directory.Get(), entry.name);
}

PinnedFile::PinnedFile(int directory, const std::string& name)
    : held_(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {}

std::string PinnedFile::Path() const {
    if (!held_.IsOpen()) return "";
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(held_.Get());
}

}  // namespace Engine
