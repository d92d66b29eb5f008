#include "base/DirectoryListing.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>

#include <cerrno>
#include <string_view>

namespace Engine {

DirectoryListing::DirectoryListing(int directory) {
    SDK::FileDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    stream_.reset(own.IsOpen() ? ::fdopendir(own.Get()) : nullptr);
    if (stream_ != nullptr) own.Release();
}

const char* DirectoryListing::Next() {
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream_.get());
        if (entry == nullptr) return nullptr;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") return entry->d_name;
    }
}

std::vector<std::string> NamesIn(int directory) {
    std::vector<std::string> names;
    DirectoryListing listing(directory);
    if (!listing.IsOpen()) return names;
    while (const char* name = listing.Next()) names.emplace_back(name);
    return names;
}

}  // namespace Engine
