#include "base/DirectoryNames.h"

#include <dirent.h>
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>

#include <cstring>
#include <memory>

namespace Engine {

std::vector<std::string> NamesIn(int directory) {
    struct CloseDir {
        void operator()(DIR* stream) const { ::closedir(stream); }
    };
    std::vector<std::string> names;
    SDK::FileDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, CloseDir> stream(own.IsOpen() ? ::fdopendir(own.Get()) : nullptr);
    if (stream == nullptr) return names;
    own.Release();
    while (const dirent* entry = ::readdir(stream.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        names.emplace_back(entry->d_name);
    }
    return names;
}

}  // namespace Engine
